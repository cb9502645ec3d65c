#include "media/CLSBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Exposes a stream's slot chain, to check that its bytes stay in packet-id
// order whatever order the packets came in.
class CLSView : public CLSBuffer {
public:
  using CLSBuffer::CLSBuffer;

  std::vector<std::string> Slots(unsigned id) const {
    std::vector<std::string> slots;
    CLCtrlData const *rec = FindRecord(id);
    for (CLDataBuf const *slot = rec ? rec->GetFirstSlot() : nullptr; slot; slot = slot->next)
      slots.emplace_back(slot->data, slot->used);
    return slots;
  }
};

// Packet pktId's bytes: its id as a letter, len times.
std::string Payload(unsigned pktId, unsigned len) { return std::string(len, static_cast<char>('A' + pktId % 26)); }

int Add(CLSBuffer &buf, unsigned id, unsigned pktId, unsigned len = 10, int newSlot = 0) {
  std::string bytes = Payload(pktId, len);
  return buf.AddPacket(id, pktId, bytes.data(), len, pktId * 100, newSlot);
}

// Walks the stream first to last, checking every packet's bytes and info.
std::vector<unsigned> Walk(CLSBuffer &buf, unsigned id) {
  std::vector<unsigned> ids;
  char tmp[256];
  unsigned len = sizeof tmp, info = 0;
  for (unsigned pkt = buf.firstPacket(id, tmp, &len, &info); pkt; pkt = buf.nextPacket(id, tmp, &len, &info)) {
    EXPECT_EQ(Payload(pkt, len), std::string(tmp, len)) << "packet " << pkt;
    EXPECT_EQ(pkt * 100, info);
    ids.push_back(pkt);
    len = sizeof tmp;
  }
  return ids;
}

TEST(CLSBuffer, StreamsAreCreatedOnceAndKilledCleanly) {
  CLSView buf(100, 16, 0);
  ASSERT_TRUE(buf.isOk());
  EXPECT_EQ(1, buf.NewId(5, 4000));
  EXPECT_EQ(0, buf.NewId(5, 4000));
  EXPECT_EQ(0, buf.NewId(0, 4000));
  EXPECT_EQ(0, buf.NewId(6, 0));
  EXPECT_EQ(3u, buf.insert(7, "raw", 3, 100));  // a plain record takes the id
  EXPECT_EQ(0, buf.NewId(7, 4000));

  EXPECT_EQ(1, Add(buf, 5, 1));
  EXPECT_EQ(1, Add(buf, 5, 2));
  EXPECT_EQ(0, Add(buf, 6, 1));  // unknown stream
  EXPECT_EQ(2u, buf.GetLastPktId(5));
  buf.KillId(5);  // the stream last looked up
  EXPECT_EQ(0u, buf.GetPacket(5, 1, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, buf.GetLastPktId(5));
  EXPECT_EQ(0, Add(buf, 5, 3));
  EXPECT_EQ(1, buf.NewId(5, 200));
  EXPECT_EQ(1, Add(buf, 5, 9));
  EXPECT_EQ(std::vector<unsigned>{9}, Walk(buf, 5));
  EXPECT_EQ(std::vector<std::string>{Payload(9, 10)}, buf.Slots(5));
  EXPECT_EQ(9u, buf.GetLastPktId(5));
}

TEST(CLSBuffer, PacketsAreReadByIdWithInfoUserDataAndShortCopies) {
  CLSBuffer buf(64, 8, 0);
  buf.NewId(1, 1000);
  EXPECT_EQ(1, Add(buf, 1, 4, 20));
  std::string other = Payload(9, 20);
  EXPECT_EQ(0, buf.AddPacket(1, 4, other.data(), 20, 0, 0));  // duplicate: first copy stays
  EXPECT_EQ(0, Add(buf, 1, 5, 65));                           // above the slot size
  EXPECT_EQ(0, Add(buf, 1, 0));

  char tmp[64] = {};
  unsigned len = 6, info = 0;
  std::uint64_t user = 7;
  EXPECT_EQ(4u, buf.GetPacket(1, 4, tmp, &len, &info, &user));
  EXPECT_EQ(6u, len);
  EXPECT_EQ(Payload(4, 6), std::string(tmp, len));
  EXPECT_EQ(400u, info);
  EXPECT_EQ(0u, user);
  len = 0;  // no room: nothing copied, *len left alone
  EXPECT_EQ(4u, buf.GetPacket(1, 4, tmp, &len, nullptr, nullptr));
  EXPECT_EQ(0u, len);

  EXPECT_EQ(1, buf.SetPktUserData(1, 4, 0x1234567890ull));
  EXPECT_EQ(0x1234567890ull, buf.GetPktUserData(1, 4));
  EXPECT_EQ(0, buf.SetPktUserData(1, 5, 1));
  EXPECT_EQ(0u, buf.GetPktUserData(1, 5));
  EXPECT_EQ(0u, buf.GetPktUserData(2, 4));
  user = 7;
  EXPECT_EQ(0u, buf.GetPacket(1, 5, tmp, &len, &info, &user));
  EXPECT_EQ(0u, user);
}

TEST(CLSBuffer, LatePacketsKeepTheSlotChainInPacketIdOrder) {
  CLSView buf(30, 32, 0);  // three 10-byte packets per slot
  buf.NewId(1, 10000);
  for (unsigned pkt : {10u, 20u, 30u, 40u, 50u})
    ASSERT_EQ(1, Add(buf, 1, pkt));
  ASSERT_EQ(2u, buf.Slots(1).size());

  EXPECT_EQ(1, Add(buf, 1, 5));   // before the first packet of a slot
  EXPECT_EQ(1, Add(buf, 1, 35));  // between two slots
  EXPECT_EQ(1, Add(buf, 1, 15));  // in the middle of a slot: the slot splits
  EXPECT_EQ(1, Add(buf, 1, 17, 20));  // middle again; 30 spills into one more slot
  EXPECT_EQ(1, Add(buf, 1, 60));  // in order again: packs after 50
  std::vector<unsigned> const order{5, 10, 15, 17, 20, 30, 35, 40, 50, 60};
  EXPECT_EQ(order, Walk(buf, 1));
  EXPECT_EQ(60u, buf.GetLastPktId(1));

  std::string expected, chain;
  for (unsigned pkt : order)
    expected += Payload(pkt, pkt == 17 ? 20 : 10);
  for (std::string const &slot : buf.Slots(1)) {
    EXPECT_LE(slot.size(), 30u);
    chain += slot;
  }
  EXPECT_EQ(expected, chain);
  EXPECT_EQ((std::vector<std::string>{Payload(5, 10), Payload(10, 10), Payload(15, 10),
                                      Payload(17, 20) + Payload(20, 10), Payload(30, 10), Payload(35, 10),
                                      Payload(40, 10) + Payload(50, 10) + Payload(60, 10)}),
            buf.Slots(1));
}

TEST(CLSBuffer, BudgetDropsWholeOldestSlotsWhichAreNotRecycled) {
  // Slots of 40 bytes hold four 10-byte packets; a budget of 100 keeps at
  // most 100 - 40 - 10 = 50 bytes before the next packet goes in.
  CLSView buf(40, 4, 4);
  buf.NewId(3, 100);
  for (unsigned pkt = 1; pkt <= 40; ++pkt)
    ASSERT_EQ(1, Add(buf, 3, pkt)) << pkt;
  std::vector<unsigned> held = Walk(buf, 3);
  ASSERT_FALSE(held.empty());
  EXPECT_EQ(40u, held.back());
  for (std::size_t i = 1; i < held.size(); ++i)
    EXPECT_EQ(held[i - 1] + 1, held[i]);
  EXPECT_EQ(0u, buf.GetPacket(3, 1, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(40u, buf.GetLastPktId(3));
  unsigned bytes = 0;
  buf.getszdata(3, &bytes);
  EXPECT_LE(bytes, 60u);
  EXPECT_EQ(bytes, 10u * held.size());
  // The cost of not recycling: every slot ever filled stays allocated.
  EXPECT_EQ(buf.GetSlotCount(), buf.Slots(3).size() + buf.GetDroppedSlotCount() + buf.GetFreeSlotCount());
  EXPECT_GE(buf.GetDroppedSlotCount(), 8u);
  EXPECT_GE(buf.GetSlotCount(), 10u);

  // Without growth the stream runs dry once the initial slots are spent.
  CLSBuffer fixed(40, 4, 0);
  fixed.NewId(1, 100);
  unsigned stored = 0;
  for (unsigned pkt = 1; pkt <= 40; ++pkt)
    stored += static_cast<unsigned>(Add(fixed, 1, pkt));
  EXPECT_LT(stored, 40u);
  EXPECT_EQ(1, fixed.reset());
  EXPECT_EQ(0, Add(fixed, 1, 41));  // reset forgets the streams
  EXPECT_EQ(1, fixed.NewId(1, 100));
  EXPECT_EQ(1, Add(fixed, 1, 41));
}

TEST(CLSBuffer, PacketIdsKeepTheirOrderAcrossTheWrap) {
  // 200 packets of 32 bytes from 0xFFFFFFA0 on, 0 skipped: 96 before the
  // wrap and 104 after. Slots of 256 bytes hold eight.
  CLSView buf(256, 8, 8);
  ASSERT_EQ(1, buf.NewId(1, 1024));
  std::vector<unsigned> sent;
  unsigned pkt = 0xFFFFFFA0u;
  for (int i = 0; i < 200; ++i, pkt = pkt == 0xFFFFFFFFu ? 1 : pkt + 1) {
    ASSERT_EQ(1, Add(buf, 1, pkt, 32)) << pkt;
    sent.push_back(pkt);
  }
  // The newest packets stay, in sending order, and the oldest went.
  std::vector<unsigned> held = Walk(buf, 1);
  ASSERT_FALSE(held.empty());
  EXPECT_EQ(std::vector<unsigned>(sent.end() - static_cast<long>(held.size()), sent.end()), held);
  EXPECT_EQ(sent.back(), buf.GetLastPktId(1));
  EXPECT_EQ(sent.back(), buf.lastPacket(1, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, buf.GetPacket(1, 0xFFFFFFA0u, nullptr, nullptr, nullptr, nullptr));
  // Packed eight to a slot: 6,400 bytes fill 25 slots, a few still held.
  EXPECT_LE(buf.GetDroppedSlotCount(), 25u);

  // A late packet from before the wrap goes before those after it.
  CLSView late(256, 8, 8);
  ASSERT_EQ(1, late.NewId(2, 4096));
  for (unsigned id : {0xFFFFFFFEu, 2u, 0xFFFFFFFFu, 1u, 3u})
    ASSERT_EQ(1, Add(late, 2, id, 16)) << id;
  EXPECT_EQ((std::vector<unsigned>{0xFFFFFFFEu, 0xFFFFFFFFu, 1u, 2u, 3u}), Walk(late, 2));
  EXPECT_EQ(3u, late.GetLastPktId(2));
}

TEST(CLSBuffer, CursorWalksBothWaysAndSetPosAnchorsIt) {
  CLSBuffer buf(30, 8, 0);
  buf.NewId(2, 1000);
  for (unsigned pkt : {3u, 6u, 9u})
    Add(buf, 2, pkt);
  EXPECT_EQ(9u, buf.lastPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(6u, buf.prevPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(3u, buf.prevPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, buf.prevPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, buf.SetPos(2, 4));
  EXPECT_EQ(1, buf.SetPos(2, 6));
  EXPECT_EQ(9u, buf.nextPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, buf.nextPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(1, buf.SetPos(2, 0));
  EXPECT_EQ(3u, buf.nextPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, buf.SetPos(8, 0));  // unknown stream
}

TEST(CLSBuffer, CopiesAndBaseClassErasesKeepTablesConsistent) {
  CLSView original(30, 8, 4);
  original.NewId(1, 1000);
  original.NewId(2, 1000);
  for (unsigned pkt : {10u, 20u, 30u, 40u})
    Add(original, 1, pkt);
  Add(original, 1, 15);
  Add(original, 2, 7);
  original.SetPos(1, 15);

  CLSView copy(original);
  CLSView assigned(10, 1, 0);
  assigned = original;
  original.KillId(1);
  Add(original, 2, 8);
  for (CLSView *buf : {&copy, &assigned}) {
    EXPECT_EQ(20u, buf->nextPacket(1, nullptr, nullptr, nullptr));
    EXPECT_EQ((std::vector<unsigned>{10, 15, 20, 30, 40}), Walk(*buf, 1));
    EXPECT_EQ(std::vector<unsigned>{7}, Walk(*buf, 2));
    EXPECT_EQ(1, Add(*buf, 1, 50));
  }

  CLBuffer &base = original;
  EXPECT_EQ(1, base.erase(2u));
  EXPECT_EQ(0u, original.firstPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(1, Add(original, 2, 9));
  base.erase_all();
  EXPECT_TRUE(Walk(original, 2).empty());
  EXPECT_EQ(1, Add(original, 2, 10));
  EXPECT_EQ(std::vector<unsigned>{10}, Walk(original, 2));
  base.reset();
  EXPECT_EQ(0u, original.firstPacket(2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0u, original.GetDroppedSlotCount());
}

}  // namespace
