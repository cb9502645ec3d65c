#include "sockbuf/SockBufVect.h"

#include "PktTestUtil.h"

#include <gtest/gtest.h>

namespace {

using namespace pkttest;

TEST(SockBufVect, KeysStaySortedAndErasedRegistersAreReusedWithTheirBuffers) {
  SockBufVect vect(2, 256);
  ASSERT_TRUE(vect.IsOk());
  EXPECT_EQ(1u, vect.append(30));
  EXPECT_EQ(1u, vect.append(10));
  EXPECT_EQ(2u, vect.append(20));
  EXPECT_EQ(0u, vect.append(20));  // present
  EXPECT_EQ(3u, vect.get_nitens());

  unsigned key = 0, pos = 0;
  std::vector<unsigned> keys;
  for (SockBuf_reg* r = vect.first(&key, &pos); r; r = vect.next(&key, &pos))
    keys.push_back(key);
  EXPECT_EQ((std::vector<unsigned>{10, 20, 30}), keys);
  EXPECT_EQ(0u, pos);
  vect.set_keynull(99);
  EXPECT_EQ(nullptr, vect.get_elem(4, &key));
  EXPECT_EQ(99u, key);

  SockBuf_reg* reg = vect.search(20, &pos);
  ASSERT_NE(nullptr, reg);
  EXPECT_EQ(2u, pos);
  EXPECT_EQ(20u, reg->GetId());
  void* buffer = reg->GetBufPtr();
  reg->OpenUrl();
  reg->SetMediaId(5);
  Bytes p = Pkt(5, 1);
  EXPECT_EQ(1, vect.SaveDataKey(20, p.data(), Len(p)));
  EXPECT_EQ(16u, vect.GetBytesUsedInd(2));
  EXPECT_EQ(20u, vect.GetId(5));
  EXPECT_EQ(0u, vect.GetId(6));
  EXPECT_EQ(0u, vect.GetId(0));

  EXPECT_EQ(1, vect.erase(20));
  EXPECT_EQ(0, vect.erase(20));
  EXPECT_EQ(1u, vect.get_npooled());
  EXPECT_EQ(nullptr, vect.search(20, nullptr));
  ASSERT_EQ(3u, vect.append(40));
  SockBuf_reg* reused = vect.search(40, nullptr);
  EXPECT_EQ(reg, reused);
  EXPECT_EQ(buffer, reused->GetBufPtr());
  EXPECT_EQ(0u, reused->GetBytesUsed());
  EXPECT_EQ(0u, reused->GetMediaId());
  EXPECT_EQ(0, reused->IsOpened());

  vect.reset();
  EXPECT_EQ(0u, vect.get_nitens());
  EXPECT_EQ(3u, vect.get_npooled());
}

TEST(SockBufVect, ForwardersNeedAKnownNonZeroKey) {
  SockBufVect vect(0, 256);
  ASSERT_EQ(1u, vect.append(0));  // stored, but key 0 names no stream
  ASSERT_EQ(2u, vect.append(7));
  for (unsigned key : {0u, 8u}) {
    EXPECT_EQ(0, vect.OpenUrl(key));
    EXPECT_EQ(0, vect.SetBlock(key, 0));
    EXPECT_EQ(0, vect.SetMediaId(key, 3));
    EXPECT_EQ(0, vect.SetOptions(key, 100, 2, 0, 0, 0));
    EXPECT_EQ(nullptr, vect.GetObj(key));
    EXPECT_EQ(0, vect.flush(key));
  }
  SockBuf_reg* reg = vect.search(7, nullptr);
  EXPECT_EQ(1, vect.OpenUrl(7));
  EXPECT_EQ(1, vect.SetBlock(7, 0));
  EXPECT_EQ(0, reg->CanBlock());
  EXPECT_EQ(reg, vect.GetObj(7));
  EXPECT_EQ(0, vect.SetnPktWaitForDelayed(7, 3));  // no ordering stage yet
  EXPECT_EQ(1, vect.SetOptions(7, 2048, 2, 0, 0, 0));
  EXPECT_NE(static_cast<ISockBuffExt*>(reg), vect.GetObj(7));
  EXPECT_EQ(1, vect.SetnPktWaitForDelayed(7, 3));
  EXPECT_EQ(1, vect.reset(7));
  EXPECT_EQ(7u, reg->GetId());
  EXPECT_EQ(reg, vect.GetObj(7));  // stages went with the reset

  EXPECT_FALSE(SockBufVect(4, 0).IsOk());
  SockBufVect bad(4, 0);
  EXPECT_EQ(0u, bad.append(1));
}

}  // namespace
