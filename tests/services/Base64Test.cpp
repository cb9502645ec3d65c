#include "services/Base64.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string Encode(std::string const &bytes) {
  std::string out(Base64EncodedSize(bytes.size()), '#');
  int n = encode64(bytes.data(), static_cast<unsigned>(bytes.size()), out.data(), static_cast<unsigned>(out.size()));
  return n < 0 ? "<failed>" : out.substr(0, static_cast<std::size_t>(n));
}

// decode64 into a generous buffer: the bytes; *result gets the return value.
std::string Decode(std::string const &text, int *result = nullptr) {
  std::string out(text.size() + 4, '#');
  int n = decode64(text.data(), static_cast<unsigned>(text.size()), out.data(), static_cast<unsigned>(out.size()));
  if (result)
    *result = n;
  return out.substr(0, n < 0 ? 0 : static_cast<std::size_t>(n));
}

std::string ToHex(std::string const &s) {
  std::string h;
  char two[3];
  for (unsigned char c : s) {
    std::snprintf(two, sizeof two, "%02x", c);
    h += two;
  }
  return h;
}

// Python's base64 module as the judge. Each input (as hex) becomes a line
// "E <encoding>" or, when strict decoding of the input as text accepts it,
// "D <hex of the bytes>", else "D!".
std::vector<std::string> AskPython(std::vector<std::string> const &inputs) {
  char path[] = "/tmp/sharedlib-b64-XXXXXX";
  std::FILE *in = ::fdopen(::mkstemp(path), "w");
  for (auto const &s : inputs)
    std::fprintf(in, "%s\n", ToHex(s).c_str());
  std::fclose(in);
  std::string cmd = std::string(PYTHON3_EXECUTABLE) +
                    " -c \"import base64, binascii, sys\n"
                    "for l in sys.stdin:\n"
                    "    b = bytes.fromhex(l.strip())\n"
                    "    try: d = 'D ' + base64.b64decode(b, validate=True).hex()\n"
                    "    except (binascii.Error, ValueError): d = 'D!'\n"
                    "    print('E ' + base64.b64encode(b).decode() + ' ' + d)\" < " + path;
  std::vector<std::string> out;
  static char line[1 << 16];
  std::FILE *p = ::popen(cmd.c_str(), "r");
  while (p && std::fgets(line, sizeof line, p))
    out.emplace_back(line, std::strlen(line) - 1);
  if (p)
    ::pclose(p);
  std::remove(path);
  return out;
}

TEST(Base64, AgreesWithPythonAndRefusesNonCanonicalText) {
  // Random bytes, and mutations of valid text: strict Python decoding accepts
  // a mutation only when every character is legal; this decoder must accept
  // exactly those that encode back to the same text, and refuse the rest.
  std::mt19937 rng(2024);
  std::string const chars = "ABCXYZabcxyz0189+/=-_ .\n\t*";
  std::vector<std::string> inputs = {"=", "A", "ABC", "A===", "AB=C", "====", "AB==CD==", "Zg=", "Zh==", "Zm9=", " Zm8="};
  for (int i = 0; i < 600; ++i) {
    std::string bytes(rng() % (i < 100 ? 8 : 600), '\0');
    for (auto &c : bytes)
      c = static_cast<char>(rng());
    inputs.push_back(bytes);
    if (i % 2 == 0) {
      std::string text = Encode(bytes.substr(0, rng() % 10));
      for (int e = 0; e < 2 && !text.empty(); ++e)
        text[rng() % text.size()] = chars[rng() % chars.size()];
      inputs.push_back(rng() % 8 ? text : text + chars[rng() % chars.size()]);
    }
  }
  auto judged = AskPython(inputs);
  ASSERT_EQ(inputs.size(), judged.size()) << "the Python oracle did not run";
  int refused = 0;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(testing::PrintToString(inputs[i]));
    std::string encoded = Encode(inputs[i]);
    ASSERT_EQ(0u, judged[i].find("E " + encoded + " D"));
    EXPECT_EQ(inputs[i], Decode(encoded));
    int result = 0;
    std::string decoded = Decode(inputs[i], &result);
    std::string verdict = judged[i].substr(encoded.size() + 3);
    if (verdict != "D!" && Encode(decoded) == inputs[i]) {
      EXPECT_EQ(verdict, "D " + ToHex(decoded));
    } else {
      EXPECT_EQ(kBase64Invalid, result);
      ++refused;
    }
  }
  EXPECT_GT(refused, 200);  // the mutations really exercise the refusals
}

TEST(Base64, VectorsAndBufferLimits) {
  for (auto const &[plain, coded] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
           {"foobar", "Zm9vYmFy"}, {"user:", "dXNlcjo="}}) {
    EXPECT_EQ(coded, Encode(plain));
    EXPECT_EQ(plain, Decode(coded));
  }
  char out[9] = "#######";
  EXPECT_EQ(kBase64TooSmall, encode64("foobar", 6, out, 8));  // needs 9 with the NUL
  EXPECT_STREQ("", out);
  EXPECT_EQ(8, encode64("foobar", 6, out, 9));
  EXPECT_EQ(kBase64Invalid, encode64(nullptr, 3, out, sizeof out));
  unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(kBase64TooSmall, decode64("Zm9vYmFy", 8, bytes, 5));
  EXPECT_EQ(1, bytes[0]);  // nothing written on failure
  EXPECT_EQ(2, decode64("Zm8=", 4, bytes, 2));  // exact room after padding
  EXPECT_EQ(kBase64Invalid, decode64("Zm9v#mFy", 8, bytes, 0));  // bad input is reported first
}

}  // namespace
