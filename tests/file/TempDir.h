// TempDir.h: a scratch directory made for one test and removed after it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace testutil {

class TempDir {
public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sharedlib-files-XXXXXX").string();
    char *made = ::mkdtemp(pattern.data());
    if (!made)
      ADD_FAILURE() << "mkdtemp failed for " << pattern;
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(TempDir const &) = delete;
  TempDir &operator=(TempDir const &) = delete;

  std::string const &path() const { return path_; }
  std::string operator/(std::string const &name) const { return path_ + "/" + name; }

  // Writes bytes to name (replacing it) and returns its full path.
  std::string Write(std::string const &name, std::string const &bytes) const {
    std::string full = *this / name;
    std::FILE *f = std::fopen(full.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size())
      ADD_FAILURE() << "cannot write " << full;
    if (f)
      std::fclose(f);
    return full;
  }

private:
  std::string path_;
};

inline std::string ReadAll(std::string const &path) {
  std::string out;
  if (std::FILE *f = std::fopen(path.c_str(), "rb")) {
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
      out.append(buf, n);
    std::fclose(f);
  }
  return out;
}

}  // namespace testutil
