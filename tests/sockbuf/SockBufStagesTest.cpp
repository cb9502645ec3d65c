#include "sockbuf/SockBuf_defrag.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/SockBuf_reg2.h"

#include "PktTestUtil.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace pkttest;

// A register with an owner, non-blocking, with stages hung behind it.
struct Stream {
  Stream(unsigned waitCount, int defrag, unsigned mode) {
    reg.SetSockBuffs(&owner);
    owner.writer = &sink;
    reg.SetBlock(0);
    EXPECT_EQ(1, reg.SetOptions(2048, waitCount, 0, defrag, mode));
    EXPECT_EQ(1, reg.OpenUrl());
  }
  void Save(Bytes const& b) { ASSERT_EQ(1, reg.SaveData(const_cast<unsigned char*>(b.data()), Len(b))); }
  // One read through the last stage; empty when it answered "nothing now".
  Bytes Read(unsigned room = 1024) {
    Bytes out(room);
    unsigned n = 0;
    HRESULT const r = reg.GetObj()->Read(out.data(), room, &n);
    EXPECT_TRUE(r == S_OK || r == STG_S_BLOCK) << r;
    if (r != S_OK)
      return {};
    out.resize(n);
    return out;
  }
  std::vector<unsigned> Seqs() {
    std::vector<unsigned> seqs;
    for (Bytes p = Read(); !p.empty(); p = Read())
      seqs.push_back(Get32(p.data() + 4));
    return seqs;
  }

  FakeOwner owner;
  PacketSink sink;
  SockBuf_reg reg{4096, 0};
};

TEST(SockBufReg2, LatePacketIsPutBackInOrder) {
  Stream s(5, 0, 0);
  for (unsigned seq : {1u, 3u, 2u})
    s.Save(Pkt(1, seq));
  EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), s.Seqs());
  EXPECT_EQ(0u, s.reg.GetObj()->GetnPktLost());
  EXPECT_EQ(3u, s.sink.Packets().size());  // the stage forwards what it delivers
  EXPECT_EQ(3u, s.reg.GetObj()->GetnPktRcv());
}

TEST(SockBufReg2, MissingPacketIsGivenUpAfterWaitCountLaterOnes) {
  Stream s(3, 0, 0);
  for (unsigned seq : {1u, 3u, 4u, 5u})
    s.Save(Pkt(1, seq));
  EXPECT_EQ((std::vector<unsigned>{1}), s.Seqs());  // 2 may still come
  s.Save(Pkt(1, 6));
  EXPECT_EQ((std::vector<unsigned>{3, 4, 5, 6}), s.Seqs());
  EXPECT_EQ(1u, s.reg.GetObj()->GetnPktLost());
  s.Save(Pkt(1, 5));  // a repeat, within wait count: dropped
  s.Save(Pkt(1, 7));
  EXPECT_EQ((std::vector<unsigned>{7}), s.Seqs());
  EXPECT_EQ(1u, s.reg.GetObj()->GetnPktLost());
}

TEST(SockBufReg2, RestartAndNewMediaIdStartAfresh) {
  Stream s(3, 0, 0);
  for (unsigned seq : {100u, 101u})
    s.Save(Pkt(1, seq));
  s.Save(Pkt(1, 5));  // far behind: a restart, not a late packet
  s.Save(Pkt(1, 6));
  EXPECT_EQ((std::vector<unsigned>{100, 101, 5, 6}), s.Seqs());
  s.Save(Pkt(2, 900));
  s.Save(Pkt(2, 901));
  EXPECT_EQ((std::vector<unsigned>{900, 901}), s.Seqs());
  EXPECT_EQ(0u, s.reg.GetObj()->GetnPktLost());
  // A malformed packet (header longer than the bytes) is dropped by the stage.
  Bytes bad = Pkt(2, 902);
  bad[8] = 200;
  s.reg.SaveData(bad.data(), Len(bad));
  EXPECT_TRUE(s.Seqs().empty());
}

Bytes Frag(unsigned seq, unsigned frameId, unsigned count, std::string const& data, unsigned char b10 = 5,
           unsigned char b11 = 0x21) {
  Bytes payload;
  Put32(payload, frameId);
  Put32(payload, 555);  // frame time
  if (b10 == 23)
    Put32(payload, count);
  else
    payload.push_back(static_cast<unsigned char>(count));
  payload.insert(payload.end(), data.begin(), data.end());
  return Pkt(9, seq, payload, b10, b11);
}

// The joined frame as each mode lays it out, built field by field.
Bytes Expected(unsigned mode, unsigned firstSeq, std::string const& data) {
  Bytes b;
  Put32(b, 9);
  Put32(b, (mode & 2) ? firstSeq : 77);
  auto const d = static_cast<unsigned>(data.size());
  if (mode & 1) {
    Put32(b, d);
  } else {
    b.push_back(static_cast<unsigned char>(d));
    b.push_back(static_cast<unsigned char>(d >> 8));
  }
  b.push_back(5);
  b.push_back(0x01);  // 0x21 with bit 5 cleared
  if (mode & 2) {
    Put32(b, 77);
    Put32(b, 555);
  }
  b.insert(b.end(), data.begin(), data.end());
  return b;
}

TEST(SockBufDefrag, ThreeFragmentsJoinInEveryLayout) {
  for (unsigned mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    Stream s(5, 1, mode);
    s.Save(Frag(1, 77, 3, "ab"));
    s.Save(Frag(3, 77, 3, "ef"));
    EXPECT_TRUE(s.Read().empty());  // 2 is still awaited
    s.Save(Frag(2, 77, 3, "cd"));
    Bytes out(1024);
    unsigned n = 0;
    int flag = -1;
    ASSERT_EQ(S_OK, s.reg.GetObj()->ReadExt(out.data(), 1024, &n, &flag));
    out.resize(n);
    EXPECT_EQ(Expected(mode, 1, "abcdef"), out);
    EXPECT_EQ(static_cast<int>(mode & 1), flag);
    ASSERT_EQ(1u, s.sink.Packets().size());  // only the joined frame is forwarded
    EXPECT_EQ(out, s.sink.Packets()[0]);
    EXPECT_EQ(static_cast<int>(mode & 1), s.sink.Flags()[0]);
    EXPECT_TRUE(s.Read().empty());
  }
}

TEST(SockBufDefrag, NewFrameDiscardsPartialOneAndLongCountsWork) {
  Stream s(0, 1, 0);  // no waiting: a gap reaches the defragmenter at once
  s.Save(Frag(1, 76, 3, "xx"));
  s.Save(Frag(2, 76, 3, "yy"));
  s.Save(Frag(3, 77, 2, "ab"));
  s.Save(Frag(4, 77, 2, "cd"));
  Bytes expected = Expected(0, 3, "abcd");
  EXPECT_EQ(expected, s.Read());
  s.Save(Frag(5, 77, 1, "z", 23));  // 4-byte fragment count
  Bytes out = s.Read();
  ASSERT_EQ(13u, out.size());
  EXPECT_EQ(23, out[10]);
  EXPECT_EQ('z', out[12]);
  s.Save(Frag(7, 78, 1, "q"));
  s.Read();
  EXPECT_EQ(1u, s.reg.GetObj()->GetnPktLost());
  // A frame too big for the reader is dropped, not cut.
  s.Save(Frag(8, 79, 1, std::string(100, 'k')));
  EXPECT_TRUE(s.Read(50).empty());
}

TEST(SockBufDefrag, WholeFramesAreCopiedConvertedOrDroppedByMode) {
  Bytes payload;
  Put32(payload, 77);
  Put32(payload, 555);
  payload.push_back('w');
  payload.push_back('f');
  Bytes const whole = Pkt(9, 1, payload, 5, 0x31);

  Stream copy(5, 1, 2);
  copy.Save(whole);
  EXPECT_EQ(whole, copy.Read());

  Stream dropped(5, 1, 1);
  dropped.Save(whole);
  EXPECT_TRUE(dropped.Read().empty());

  Stream converted(5, 1, 3);
  converted.Save(whole);
  Bytes expected;
  Put32(expected, 9);
  Put32(expected, 77);  // the frame id stands in the sequence field
  Put32(expected, 2);
  expected.push_back(5);
  expected.push_back(0x11);
  Put32(expected, 77);
  Put32(expected, 555);
  expected.push_back('w');
  expected.push_back('f');
  EXPECT_EQ(expected, converted.Read());
}

}  // namespace
