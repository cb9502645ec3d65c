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
  TempDir() : path_((std::filesystem::temp_directory_path() / "sharedlib-files-XXXXXX").string()) {
    if (!::mkdtemp(path_.data()))
      ADD_FAILURE() << "mkdtemp failed for " << path_;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
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

}  // namespace testutil
