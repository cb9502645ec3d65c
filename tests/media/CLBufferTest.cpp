#include "media/CLBuffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// Options of the constructor, by name.
constexpr int kReplace = 1, kSlotPerInsert = 1, kSplit = 1, kAuto = 1;

std::string Bytes(unsigned n, char c) { return std::string(n, c); }

unsigned Put(CLBuffer &buf, unsigned id, std::string const &s, unsigned maxLen = 1000) {
  return buf.insert(id, s.data(), static_cast<unsigned>(s.size()), maxLen);
}

// Consumes record id slot piece by slot piece; returns the pieces read.
std::vector<std::string> Drain(CLBuffer &buf, unsigned id, bool *sawDone = nullptr) {
  std::vector<std::string> pieces;
  int done = 0;
  while (!done) {
    char tmp[4096];
    unsigned len = sizeof tmp;
    if (buf.first(id, tmp, &len, nullptr, 1, &done) == 0)
      break;
    pieces.emplace_back(tmp, len);
  }
  if (sawDone)
    *sawDone = done != 0;
  return pieces;
}

TEST(CLBuffer, AutomaticIdsAreHandedOutInOrderAndGivenBackOnFailure) {
  CLBuffer manual(100, 4, 0, kSlotPerInsert, 0, 0, 0);
  EXPECT_EQ(0u, Put(manual, 0, "x"));

  CLBuffer autoIds(100, 3, 0, kSlotPerInsert, 0, kAuto, 0);
  EXPECT_EQ(1u, Put(autoIds, 0, "a"));
  EXPECT_EQ(1u, Put(autoIds, 0, "b"));
  EXPECT_EQ(0u, Put(autoIds, 0, Bytes(20, 'c'), 10));  // above its maximum
  EXPECT_EQ(1u, Put(autoIds, 0, "d"));
  EXPECT_EQ(0u, Put(autoIds, 0, "e"));  // no slot left, no growth
  EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), ([&] {
              std::vector<unsigned> ids;
              for (unsigned id = autoIds.first(nullptr, nullptr); id; id = autoIds.next(nullptr, nullptr))
                ids.push_back(id);
              return ids;
            })());
  EXPECT_EQ(1, autoIds.erase(2u));
  EXPECT_EQ(1u, Put(autoIds, 0, "f"));
  EXPECT_EQ(4u, autoIds.last(nullptr, nullptr));
}

TEST(CLBuffer, StreamModePacksIntoTheLastSlotAndSlotPerInsertDoesNot) {
  CLBuffer stream(100, 8, 0, 0, 0, 0, 0);
  EXPECT_EQ(10u, Put(stream, 7, Bytes(10, 'a'), 100));
  EXPECT_EQ(10u, Put(stream, 7, Bytes(10, 'b'), 100));
  unsigned size = 0;
  EXPECT_EQ(7u, stream.getszdata(7, &size));
  EXPECT_EQ(20u, size);
  EXPECT_EQ(7u, stream.GetFreeSlotCount());
  EXPECT_EQ(std::vector<std::string>{Bytes(10, 'a') + Bytes(10, 'b')}, Drain(stream, 7));

  CLBuffer packets(100, 8, 0, kSlotPerInsert, kSplit, 0, 0);  // split is ignored here
  EXPECT_EQ(10u, Put(packets, 7, Bytes(10, 'a'), 100));
  EXPECT_EQ(10u, Put(packets, 7, Bytes(10, 'b'), 100));
  EXPECT_EQ(0u, Put(packets, 8, Bytes(150, 'c'), 300));
  EXPECT_EQ(6u, packets.GetFreeSlotCount());
  EXPECT_EQ((std::vector<std::string>{Bytes(10, 'a'), Bytes(10, 'b')}), Drain(packets, 7));
  EXPECT_EQ(0u, packets.get_nitens());
  EXPECT_EQ(8u, packets.GetFreeSlotCount());
}

TEST(CLBuffer, FullRecordRefusesUnlessReplacingOldestSlots) {
  CLBuffer refuse(100, 8, 0, kSlotPerInsert, 0, 0, 0);
  CLBuffer replace(100, 8, kReplace, kSlotPerInsert, 0, 0, 0);
  for (CLBuffer *buf : {&refuse, &replace}) {
    EXPECT_EQ(40u, Put(*buf, 3, Bytes(40, '1'), 100));
    EXPECT_EQ(40u, Put(*buf, 3, Bytes(40, '2'), 100));
  }
  EXPECT_EQ(0u, Put(refuse, 3, Bytes(40, '3'), 100));
  EXPECT_EQ(40u, Put(replace, 3, Bytes(40, '3'), 100));
  // Dropping one 40-byte slot is not enough for 70 bytes: both go.
  EXPECT_EQ(70u, Put(replace, 3, Bytes(70, '4'), 100));
  unsigned size = 0;
  replace.getszdata(3, &size);
  EXPECT_EQ(70u, size);
  EXPECT_EQ(std::vector<std::string>{Bytes(70, '4')}, Drain(replace, 3));
  EXPECT_EQ(8u, replace.GetFreeSlotCount());
}

TEST(CLBuffer, SplitCutsLargeInputsIntoSlotsOfOneRecord) {
  CLBuffer split(100, 8, 0, 0, kSplit, kAuto, 0);
  std::string input = Bytes(100, 'a') + Bytes(100, 'b') + Bytes(50, 'c');
  char const *where = nullptr;
  CLDataBuf *slot = nullptr;
  EXPECT_EQ(250u, split.insert(0, input.data(), 250, 300, &where, 42, &slot));
  ASSERT_NE(nullptr, slot);
  EXPECT_EQ(slot->data, where);
  EXPECT_EQ(1u, split.get_nitens());
  EXPECT_EQ(0u, split.insert(0, input.data(), 250, 200));  // above the maximum

  // A consuming read takes the first slot only; done comes with the last byte.
  char tmp[100];
  unsigned len = 60;
  int done = -1;
  __int64 user = 0;
  EXPECT_EQ(1u, split.first(0, tmp, &len, &user, 1, &done));
  EXPECT_EQ(60u, len);
  EXPECT_EQ(0, done);
  EXPECT_EQ(42, user);
  EXPECT_EQ(Bytes(60, 'a'), std::string(tmp, len));
  bool sawDone = false;
  EXPECT_EQ((std::vector<std::string>{Bytes(40, 'a'), Bytes(100, 'b'), Bytes(50, 'c')}),
            Drain(split, 1, &sawDone));
  EXPECT_TRUE(sawDone);
  EXPECT_EQ(0u, split.get_nitens());

  // Pieces stop at the record's maximum; the count stored says how far.
  EXPECT_EQ(50u, Put(split, 9, Bytes(50, 'x'), 300));
  EXPECT_EQ(250u, Put(split, 9, input, 300));
  EXPECT_EQ(0u, Put(split, 9, Bytes(10, 'y'), 300));
}

TEST(CLBuffer, RecordsComeOutInUnsignedIdOrder) {
  CLBuffer buf(16, 4, 0, kSlotPerInsert, 0, 0, 4);
  for (unsigned id : {9u, 2u, 0xFFFFFFFFu, 5u, 0x80000000u})
    EXPECT_EQ(std::to_string(id).size(), Put(buf, id, std::to_string(id)));
  std::vector<unsigned> order;
  char tmp[16];
  unsigned len = sizeof tmp;
  while (unsigned id = buf.popfirst(tmp, &len)) {
    EXPECT_EQ(std::to_string(id), std::string(tmp, len));
    order.push_back(id);
    len = sizeof tmp;
  }
  EXPECT_EQ((std::vector<unsigned>{2, 5, 9, 0x80000000u, 0xFFFFFFFFu}), order);
  EXPECT_EQ(0u, len);
  EXPECT_EQ(0u, buf.poplast(nullptr, nullptr));
}

// Mixed inserts, erases and pops at random positions of the index, checked
// against an ordered map after every step.
TEST(CLBuffer, RandomTrafficMatchesAnOrderedMap) {
  CLBuffer buf(8, 16, 0, kSlotPerInsert, 0, 0, 16);
  std::map<unsigned, std::string> model;
  std::mt19937 rng(12345);
  for (int step = 0; step < 20000; ++step) {
    unsigned id = 1 + rng() % 300;
    switch (rng() % 4) {
      case 0:
      case 1:
        if (!model.count(id)) {
          std::string bytes = std::to_string(id);
          ASSERT_EQ(bytes.size(), Put(buf, id, bytes));
          model[id] = bytes;
        }
        break;
      case 2:
        ASSERT_EQ(model.erase(id), static_cast<std::size_t>(buf.erase(id)));
        break;
      default: {
        char tmp[8];
        unsigned len = sizeof tmp;
        unsigned popped = buf.popfirst(tmp, &len);
        ASSERT_EQ(model.empty() ? 0u : model.begin()->first, popped);
        if (popped) {
          ASSERT_EQ(model.begin()->second, std::string(tmp, len));
          model.erase(model.begin());
        }
      }
    }
    ASSERT_EQ(model.size(), buf.get_nitens());
    if (step % 97 == 0) {
      auto it = model.begin();
      for (unsigned got = buf.first(nullptr, nullptr); got; got = buf.next(nullptr, nullptr), ++it)
        ASSERT_EQ(it->first, got);
      ASSERT_TRUE(it == model.end());
    }
  }
}

TEST(CLBuffer, CursorIsAnchoredByIdAcrossInsertsAndErases) {
  CLBuffer buf(16, 8, 0, kSlotPerInsert, 0, 0, 0);
  for (unsigned id : {10u, 20u, 30u})
    Put(buf, id, "p");
  EXPECT_EQ(0u, buf.prev(nullptr, nullptr));  // at the start
  EXPECT_EQ(10u, buf.next(nullptr, nullptr));
  Put(buf, 15, "p");  // lands behind the cursor's next step
  EXPECT_EQ(15u, buf.next(nullptr, nullptr));
  buf.erase(15u);  // the cursor's own record
  EXPECT_EQ(20u, buf.next(nullptr, nullptr));
  EXPECT_EQ(10u, buf.prev(nullptr, nullptr));
  EXPECT_EQ(0u, buf.prev(nullptr, nullptr));
  EXPECT_EQ(30u, buf.last(nullptr, nullptr));
  EXPECT_EQ(0u, buf.next(nullptr, nullptr));  // past the end it stays...
  Put(buf, 40, "p");
  EXPECT_EQ(40u, buf.next(nullptr, nullptr));  // ...and finds what came later

  EXPECT_EQ(0, buf.set_pos(25));
  EXPECT_EQ(1, buf.set_pos(20));
  EXPECT_EQ(30u, buf.next(nullptr, nullptr));
  EXPECT_EQ(1, buf.set_pos(0));
  EXPECT_EQ(10u, buf.next(nullptr, nullptr));
  buf.erase_all();
  EXPECT_EQ(0u, buf.next(nullptr, nullptr));
  EXPECT_EQ(0u, buf.first(nullptr, nullptr));
}

TEST(CLBuffer, PeekThenPoplastopKeepsTheUnsentTailFirst) {
  CLBuffer queue(100, 8, 0, 0, kSplit, 0, 0);  // the send queue's options
  Put(queue, 5, "0123456789");
  char tmp[100];
  unsigned len = 4;
  __int64 user = -1;
  int done = -1;
  EXPECT_EQ(5u, queue.first(5, tmp, &len, &user, 0, &done));
  EXPECT_EQ("0123", std::string(tmp, len));
  EXPECT_EQ(0, done);
  Put(queue, 5, "abc");  // queued between the peek and the commit
  queue.poplastop(6, 4);  // another id: nothing
  queue.poplastop(5, 99);  // clamped to the 4 bytes peeked
  queue.poplastop(5, 4);   // the peek is spent
  EXPECT_EQ(std::vector<std::string>{"456789abc"}, Drain(queue, 5));

  // A consuming read in between spends the peek: the commit must not take
  // bytes that the peek never saw.
  Put(queue, 7, "abcdef");
  len = 3;
  queue.first(7, tmp, &len, nullptr, 0, &done);
  len = 2;
  queue.first(7, tmp, &len, nullptr, 1, &done);
  queue.poplastop(7, 3);
  EXPECT_EQ(std::vector<std::string>{"cdef"}, Drain(queue, 7));

  // So does a slot inserted in front of the peeked one.
  CLBuffer slots(8, 8, 0, 0, 0, 0, 0);
  CLDataBuf *front = nullptr;
  ASSERT_EQ(4u, slots.insert(3, "peek", 4, 100, nullptr, 0, &front, 1));
  len = 4;
  slots.first(3, tmp, &len, nullptr, 0, &done);
  ASSERT_EQ(3u, slots.insert(3, "new", 3, 100, nullptr, 0, nullptr, 1, front, 0));
  slots.poplastop(3, 4);
  EXPECT_EQ((std::vector<std::string>{"new", "peek"}), Drain(slots, 3));

  // A commit that empties the record erases it.
  Put(queue, 6, "xy");
  len = 100;
  queue.first(0, tmp, &len, nullptr, 0, &done);
  queue.poplastop(6, 2);
  EXPECT_EQ(0u, queue.get_nitens());
  EXPECT_EQ(8u, queue.GetFreeSlotCount());
}

// A derived store whose erase takes another kind of key (the send queue's
// takes a socket): records emptied by pops and commits must still go by
// their own id, reported through RecordErased.
class SocketKeyed : public CLBuffer {
public:
  SocketKeyed() : CLBuffer(16, 8, 0, 0, kSplit, 0, 0) {}
  int erase(unsigned sock) override {
    ++socketErases;
    return CLBuffer::erase(sock + 1);
  }
  void RecordErased(unsigned id) override { erased.push_back(id); }
  int socketErases = 0;
  std::vector<unsigned> erased;
};

TEST(CLBuffer, RecordsEmptiedInternallyNeverGoThroughADerivedErase) {
  SocketKeyed queue;
  for (unsigned key : {6u, 7u, 8u, 9u})
    Put(queue, key, "ab");
  char tmp[16];
  unsigned len = sizeof tmp;
  int done = 0;
  queue.first(6, tmp, &len, nullptr, 0, &done);
  queue.poplastop(6, len);
  len = sizeof tmp;
  queue.first(7, tmp, &len, nullptr, 1, &done);
  EXPECT_EQ(1, done);
  EXPECT_EQ(8u, queue.popfirst(nullptr, nullptr));
  EXPECT_EQ(1, queue.erase(8u));  // the derived meaning: socket 8 is record 9
  EXPECT_EQ(1, queue.socketErases);  // only the explicit call
  EXPECT_EQ((std::vector<unsigned>{6, 7, 8, 9}), queue.erased);
  EXPECT_EQ(0u, queue.get_nitens());
}

TEST(CLBuffer, TargetSlotsPlaceNewSlotsBeforeOrAfter) {
  CLBuffer buf(8, 8, 0, 0, 0, 0, 0);
  CLDataBuf *middle = nullptr;
  ASSERT_EQ(3u, buf.insert(1, "mid", 3, 100, nullptr, 0, &middle, 1));
  EXPECT_EQ(0u, buf.insert(2, "new", 3, 100, nullptr, 0, nullptr, 0, middle, 1));  // no record to pack into
  EXPECT_EQ(3u, buf.insert(1, "aft", 3, 100, nullptr, 0, nullptr, 1, middle, 1));
  EXPECT_EQ(3u, buf.insert(1, "bef", 3, 100, nullptr, 0, nullptr, 1, middle, 0));
  EXPECT_EQ(2u, buf.insert(1, "++", 2, 100, nullptr, 0, nullptr, 0, middle, 1));  // packs into the target
  EXPECT_EQ(4u, buf.insert(1, "full", 4, 100, nullptr, 0, nullptr, 0, middle, 1));  // no room: new slot after
  EXPECT_EQ((std::vector<std::string>{"bef", "mid++", "full", "aft"}), Drain(buf, 1));
}

TEST(CLBuffer, SlotsComeFromBlocksAndAreRecycled) {
  CLBuffer fixed(32, 2, 0, kSlotPerInsert, 0, 0, 0);
  EXPECT_EQ(1u, Put(fixed, 1, "a"));
  EXPECT_EQ(1u, Put(fixed, 2, "b"));
  EXPECT_EQ(0u, Put(fixed, 3, "c"));
  EXPECT_EQ(1, fixed.erase(1u));
  EXPECT_EQ(1u, Put(fixed, 3, "c"));
  EXPECT_EQ(1u, fixed.GetBlockCount());

  CLBuffer growing(1400, 4, 0, kSlotPerInsert, 0, 0, 10);
  std::string packet = Bytes(1400, 'p');
  unsigned seq = 1;
  for (; seq <= 30; ++seq)
    ASSERT_EQ(1400u, Put(growing, seq, packet, 1400));
  EXPECT_EQ(4u, growing.GetBlockCount());  // 4 + 10 + 10 + 10 slots
  EXPECT_EQ(34u, growing.GetSlotCount());
  // Warm: a steady stream of inserts and pops draws no new block.
  char out[1400];
  for (unsigned i = 0; i < 5000; ++i, ++seq) {
    ASSERT_EQ(1400u, Put(growing, seq, packet, 1400));
    unsigned len = sizeof out;
    ASSERT_EQ(seq - 30, growing.popfirst(out, &len));
    ASSERT_EQ(1400u, len);
  }
  EXPECT_EQ(4u, growing.GetBlockCount());
  growing.flush();
  EXPECT_EQ(34u, growing.GetFreeSlotCount());
  EXPECT_EQ(4u, growing.GetBlockCount());
  EXPECT_EQ(1, growing.reset());
  EXPECT_EQ(1u, growing.GetBlockCount());
  EXPECT_EQ(0u, growing.get_nitens());
}

TEST(CLBuffer, CopiesAreDeepAndAnUnusableBufferRefusesEverything) {
  CLBuffer original(16, 4, 0, 0, kSplit, 0, 4);
  Put(original, 3, Bytes(40, 'z'));
  Put(original, 1, "one");
  original.set_pos(1);
  CLBuffer copy(original);
  CLBuffer assigned(8, 1, 0, 0, 0, 0, 0);
  assigned = original;
  original.erase_all();
  Put(original, 3, "changed");
  for (CLBuffer *buf : {&copy, &assigned}) {
    EXPECT_EQ(3u, buf->next(nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{Bytes(16, 'z'), Bytes(16, 'z'), Bytes(8, 'z')}), Drain(*buf, 3));
    EXPECT_EQ(std::vector<std::string>{"one"}, Drain(*buf, 1));
  }

  CLBuffer broken(0, 4, 0, 0, 0, 0, 0);
  EXPECT_FALSE(broken.IsOk());
  EXPECT_EQ(0, broken.reset());
  EXPECT_EQ(0u, Put(broken, 1, "x"));
  unsigned len = 5, size = 5;
  EXPECT_EQ(0, broken.search(1, nullptr, &len));
  EXPECT_EQ(0u, len);
  EXPECT_EQ(0u, broken.getszdata(0, &size));
  EXPECT_EQ(0u, size);
  EXPECT_EQ(0u, broken.first(0, nullptr, nullptr, nullptr, 1, nullptr));
  broken.poplastop(1, 1);
  EXPECT_FALSE(CLBuffer(16, 0, 0, 0, 0, 0, 4).IsOk());
}

}  // namespace
