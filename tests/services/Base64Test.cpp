#include "services/Base64.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string Encode(std::string const &bytes) {
  std::string out(Base64EncodedSize(bytes.size()), '#');
  int n = encode64(bytes.data(), static_cast<unsigned>(bytes.size()), out.data(),
                   static_cast<unsigned>(out.size()));
  EXPECT_GE(n, 0);
  out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return out;
}

// decode64 into a generous buffer: the bytes, or the failure code as text.
std::string Decode(std::string const &text, int *result = nullptr) {
  std::string out(text.size() + 4, '#');
  int n = decode64(text.data(), static_cast<unsigned>(text.size()), out.data(),
                   static_cast<unsigned>(out.size()));
  if (result)
    *result = n;
  out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return out;
}

std::string ToHex(std::string const &s) {
  static char const kDigits[] = "0123456789abcdef";
  std::string h;
  for (unsigned char c : s) {
    h += kDigits[c >> 4];
    h += kDigits[c & 15];
  }
  return h;
}

// Runs a Python program over input lines and returns its output lines.
std::vector<std::string> RunPython(char const *program, std::vector<std::string> const &lines) {
  char dir[] = "/tmp/sharedlib-b64-XXXXXX";
  if (!::mkdtemp(dir))
    return {};
  std::string script = std::string(dir) + "/oracle.py";
  std::string input = std::string(dir) + "/in.txt";
  std::FILE *f = std::fopen(script.c_str(), "w");
  std::fputs(program, f);
  std::fclose(f);
  f = std::fopen(input.c_str(), "w");
  for (auto const &l : lines)
    std::fprintf(f, "%s\n", l.c_str());
  std::fclose(f);
  std::string cmd = std::string(PYTHON3_EXECUTABLE) + " " + script + " < " + input;
  std::vector<std::string> out;
  if (std::FILE *p = ::popen(cmd.c_str(), "r")) {
    char buf[1 << 16];
    while (std::fgets(buf, sizeof buf, p)) {
      std::string l(buf);
      if (!l.empty() && l.back() == '\n')
        l.pop_back();
      out.push_back(l);
    }
    ::pclose(p);
  }
  std::remove(script.c_str());
  std::remove(input.c_str());
  ::rmdir(dir);
  return out;
}

TEST(Base64, RfcVectors) {
  std::vector<std::pair<std::string, std::string>> const vectors = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (auto const &[plain, coded] : vectors) {
    EXPECT_EQ(coded, Encode(plain));
    EXPECT_EQ(plain, Decode(coded));
  }
  EXPECT_EQ("dXNlcjo=", Encode("user:"));  // proxy login with a blank password
}

TEST(Base64, MatchesPythonOnRandomInputs) {
  std::mt19937 rng(2024);
  std::vector<std::string> inputs;
  for (int i = 0; i < 300; ++i) {
    std::string s(rng() % (i < 50 ? 8 : 600), '\0');
    for (auto &c : s)
      c = static_cast<char>(rng());
    inputs.push_back(s);
  }
  std::vector<std::string> hex;
  for (auto const &s : inputs)
    hex.push_back(ToHex(s));
  auto expected = RunPython(
      "import base64, sys\n"
      "for line in sys.stdin:\n"
      "    print(base64.b64encode(bytes.fromhex(line.strip())).decode())\n",
      hex);
  ASSERT_EQ(inputs.size(), expected.size()) << "python oracle did not run";
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    EXPECT_EQ(expected[i], Encode(inputs[i])) << "input " << i;
    EXPECT_EQ(inputs[i], Decode(expected[i])) << "input " << i;
  }
}

TEST(Base64, RejectsWhatIsNotCanonicalBase64) {
  // Mutations of valid text: each either decodes in Python's strict mode to
  // bytes that encode back to the same text, or must be refused here.
  std::mt19937 rng(77);
  std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=-_ .\n\t*";
  std::vector<std::string> candidates = {"=", "A", "AB", "ABC", "A===", "AB=C", "====", "AB==CD==",
                                         "Zg=", "Zh==", "Zm9=", "Zm8=\n", " Zm8=", "Zm-_", "QQ==QQ=="};
  for (int i = 0; i < 400; ++i) {
    std::string bytes(rng() % 10, '\0');
    for (auto &c : bytes)
      c = static_cast<char>(rng());
    std::string text = Encode(bytes);
    int edits = 1 + static_cast<int>(rng() % 2);
    for (int e = 0; e < edits && !text.empty(); ++e)
      text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
    if (rng() % 8 == 0)
      text += alphabet[rng() % alphabet.size()];
    candidates.push_back(text);
  }
  std::vector<std::string> hex;
  for (auto const &c : candidates)
    hex.push_back(ToHex(c));
  auto verdicts = RunPython(
      "import base64, binascii, sys\n"
      "for line in sys.stdin:\n"
      "    try:\n"
      "        print('OK ' + base64.b64decode(bytes.fromhex(line.strip()), validate=True).hex())\n"
      "    except (binascii.Error, ValueError):\n"
      "        print('ERR')\n",
      hex);
  ASSERT_EQ(candidates.size(), verdicts.size()) << "python oracle did not run";
  int refused = 0;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "'" << candidates[i] << "'");
    int result = 0;
    std::string decoded = Decode(candidates[i], &result);
    bool canonical = verdicts[i] != "ERR";
    if (canonical) {
      std::string bytes;
      std::string h = verdicts[i].substr(3);
      for (std::size_t k = 0; k + 1 < h.size(); k += 2)
        bytes += static_cast<char>(std::stoi(h.substr(k, 2), nullptr, 16));
      canonical = Encode(bytes) == candidates[i];
      if (canonical) {
        EXPECT_EQ(bytes, decoded);
      }
    }
    if (!canonical) {
      EXPECT_EQ(kBase64Invalid, result);
      ++refused;
    }
  }
  EXPECT_GT(refused, 100);  // the mutations really exercise the refusals
}

TEST(Base64, OutputBufferTooSmall) {
  char out[9] = "#######";
  EXPECT_EQ(kBase64TooSmall, encode64("foobar", 6, out, 8));  // needs 9 with the NUL
  EXPECT_STREQ("", out);
  EXPECT_EQ(8, encode64("foobar", 6, out, 9));
  EXPECT_STREQ("Zm9vYmFy", out);
  EXPECT_EQ(kBase64TooSmall, encode64("f", 1, nullptr, 0));
  EXPECT_EQ(kBase64Invalid, encode64(nullptr, 3, out, sizeof out));
  EXPECT_EQ(0, encode64(nullptr, 0, out, 1));

  unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(kBase64TooSmall, decode64("Zm9vYmFy", 8, bytes, 5));
  EXPECT_EQ(1, bytes[0]);  // nothing written on failure
  EXPECT_EQ(6, decode64("Zm9vYmFy", 8, bytes, 6));
  EXPECT_EQ(2, decode64("Zm8=", 4, bytes, 2));  // exact room after padding
  EXPECT_EQ(kBase64Invalid, decode64("Zm9=", 4, bytes, 2));  // dropped bits set
  EXPECT_EQ(kBase64Invalid, decode64("Zm9v#mFy", 8, bytes, 6));  // bad input wins
  EXPECT_EQ(0, decode64(nullptr, 0, nullptr, 0));
  EXPECT_EQ(kBase64Invalid, decode64(nullptr, 4, bytes, 6));
}

}  // namespace
