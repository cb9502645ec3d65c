// TxtBuf_reg: bytes in as they arrive, lines out.
#include "socket/TxtBuf_reg.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Feeds text in pieces of the given sizes (cycled) and collects every line.
std::vector<std::string> Lines(std::string const &text, std::vector<unsigned> pieces) {
  TxtBuf_reg reg;
  std::vector<std::string> out;
  std::vector<char> line(TxtBuf_reg::kMaxLine + 1);
  std::size_t at = 0;
  for (std::size_t k = 0; at < text.size(); ++k) {
    unsigned const n = std::min<unsigned>(pieces[k % pieces.size()], static_cast<unsigned>(text.size() - at));
    unsigned const took = reg.Put(text.data() + at, n);
    at += took;
    for (int len; (len = reg.GetLine(line.data(), static_cast<unsigned>(line.size()))) > 0;) {
      out.emplace_back(line.data(), static_cast<std::size_t>(len - 1));
    }
  }
  return out;
}

TEST(TxtBuf_regTest, LineEndsAreCrLfOrCrLfSplitAnywhere) {
  std::string const text = "one\r\ntwo\nthree\rfour\r\n\r\nsix\n";
  std::vector<std::string> const expected = {"one", "two", "three", "four", "", "six"};
  // Whole, byte by byte, and in pieces that split every CR LF pair.
  EXPECT_EQ(Lines(text, {1000}), expected);
  EXPECT_EQ(Lines(text, {1}), expected);
  EXPECT_EQ(Lines(text, {4, 5, 3}), expected);
  // A CR at the end of a read and nothing after it is already a line end.
  EXPECT_EQ(Lines("abc\r", {10}), (std::vector<std::string>{"abc"}));
}

TEST(TxtBuf_regTest, BytesAreKeptAsTheyAre) {
  std::string const text("a\0b\tc\n", 6);
  auto lines = Lines(text, {2});
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], std::string("a\0b\tc", 5));
}

TEST(TxtBuf_regTest, AnEndlessLineComesOutInPiecesOfTheCapacity) {
  std::string text(70000, 'x');
  text += "\nend\n";
  auto lines = Lines(text, {1460});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].size(), TxtBuf_reg::kMaxLine);
  EXPECT_EQ(lines[1].size(), 70000u - TxtBuf_reg::kMaxLine);
  EXPECT_EQ(lines[2], "end");
}

TEST(TxtBuf_regTest, RoomPendingCutAndReset) {
  TxtBuf_reg reg(10);
  EXPECT_EQ(reg.Put("abcdefghijkl", 12), 10u);  // only the room is taken
  EXPECT_EQ(reg.Room(), 0u);
  char small[4];
  EXPECT_EQ(reg.GetLine(small, sizeof(small)), 4);  // cut to 3 characters
  EXPECT_STREQ(small, "abc");
  EXPECT_EQ(reg.Pending(), 0u);  // the rest of the cut line is dropped
  EXPECT_EQ(reg.Put("xy\nz", 4), 4u);
  EXPECT_EQ(reg.GetLine(nullptr, 4), 0);
  EXPECT_EQ(reg.GetLine(small, 0), 0);
  reg.Reset();
  EXPECT_EQ(reg.Pending(), 0u);
  EXPECT_EQ(reg.Room(), 10u);
  EXPECT_EQ(reg.GetLine(small, sizeof(small)), 0);
}

// A long line grows the storage and draining frees it; the freeing must not
// lose the state of a CR LF split across reads nor a line split around it.
TEST(TxtBuf_regTest, GrownRegisterShrinksWhenDrainedAndKeepsSplitLinesWhole) {
  TxtBuf_reg reg;
  std::vector<char> line(TxtBuf_reg::kMaxLine + 1);
  auto const size = static_cast<unsigned>(line.size());
  std::string const big = std::string(60000, 'b') + "\r";
  ASSERT_EQ(big.size(), reg.Put(big.data(), static_cast<unsigned>(big.size())));
  EXPECT_GE(reg.StorageBytes(), big.size());
  ASSERT_EQ(60001, reg.GetLine(line.data(), size));
  EXPECT_LE(reg.StorageBytes(), TxtBuf_reg::kKeepBytes);
  // The CR's LF arrives now, with the head of the next line.
  ASSERT_EQ(5u, reg.Put("\npart", 5));
  EXPECT_EQ(0, reg.GetLine(line.data(), size));
  ASSERT_EQ(5u, reg.Put("ial\r\n", 5));
  EXPECT_EQ(8, reg.GetLine(line.data(), size));
  EXPECT_STREQ("partial", line.data());
  EXPECT_EQ(0u, reg.Pending());
}

}  // namespace
