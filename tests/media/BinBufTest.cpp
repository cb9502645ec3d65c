#include "media/BinBuf.h"

#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

int Save(BinBuf_reg &reg, std::string s) { return reg.SaveData(s.data(), static_cast<unsigned>(s.size())); }

// Gives a thread that was just started a chance to reach its blocking call.
// Results never depend on it: a reader that has not blocked yet gets the
// same answer without blocking.
void LetItBlock(std::atomic<bool> const &started) {
  while (!started.load())
    std::this_thread::yield();
  for (int i = 0; i < 1000; ++i)
    std::this_thread::yield();
}

TEST(BinBufReg, FixedRegistersRefuseWholeWritesAndGrowingOnesDouble) {
  BinBuf_reg fixed(10, 0, 0, 0);
  ASSERT_TRUE(fixed.IsOk());
  EXPECT_EQ(1, Save(fixed, "abcdef"));
  EXPECT_EQ(0, Save(fixed, "ghijkl"));
  EXPECT_EQ(6u, fixed.GetBytesUsed());
  EXPECT_EQ(4u, fixed.GetBytesLeft());
  EXPECT_EQ("abcdef", std::string(static_cast<char *>(fixed.GetBufPtr()), 6));
  // Bytes read leave room that a later write gets, the rest moved forward.
  char out[16];
  unsigned len = 4;
  ASSERT_EQ(1, fixed.GetData(out, &len));
  EXPECT_EQ("ef", std::string(static_cast<char *>(fixed.GetBufPtr()), 2));
  EXPECT_EQ(8u, fixed.GetBytesLeft());
  EXPECT_EQ(1, Save(fixed, "ghijklmn"));
  EXPECT_EQ("efghijklmn", std::string(static_cast<char *>(fixed.GetBufPtr()), 10));

  BinBuf_reg growing(10, 1, 0, 0);
  EXPECT_EQ(1, Save(growing, "abcdef"));
  EXPECT_EQ(1, Save(growing, "ghijkl"));
  EXPECT_EQ(8u, growing.GetBytesLeft());  // doubled to 20
  len = 4;
  EXPECT_EQ(1, growing.GetData(out, &len));
  EXPECT_EQ("abcd", std::string(out, len));
  len = 16;
  EXPECT_EQ(1, growing.GetData(out, &len));
  EXPECT_EQ("efghijkl", std::string(out, len));
  len = 16;
  EXPECT_EQ(0, growing.GetData(out, &len));  // empty, non-blocking
  EXPECT_EQ(16u, len);
  EXPECT_EQ(0, growing.GetData(out, nullptr));
  EXPECT_EQ(0, Save(growing, ""));

  EXPECT_FALSE(BinBuf_reg(0, 1, 1, 1).IsOk());
}

TEST(BinBufReg, InterleavedWritesAndReadsKeepTheByteOrder) {
  for (int growable : {0, 1}) {
    BinBuf_reg reg(growable ? 16 : 3000, growable, 0, 0);
    std::string model;  // what the register should hold
    std::mt19937 rng(growable + 11);
    char next = 0;
    std::vector<char> out(2000);
    for (int step = 0; step < 5000; ++step) {
      if (rng() % 2 == 0) {
        std::string bytes(rng() % 700 + 1, '\0');
        for (char &c : bytes)
          c = next++;
        int const fits = growable || model.size() + bytes.size() <= 3000;
        ASSERT_EQ(fits, Save(reg, bytes));
        if (fits)
          model += bytes;
      } else {
        unsigned len = static_cast<unsigned>(rng() % out.size() + 1);
        int const got = reg.GetData(out.data(), &len);
        ASSERT_EQ(model.empty() ? 0 : 1, got);
        if (got) {
          ASSERT_EQ(model.substr(0, len), std::string(out.data(), len));
          model.erase(0, len);
        }
      }
      ASSERT_EQ(model.size(), reg.GetBytesUsed());
    }
  }
}

TEST(BinBufReg, DisableAbortAndResetGateBothDirections) {
  BinBuf_reg reg(16, 0, 1, 0);
  Save(reg, "held");
  EXPECT_EQ(1, reg.SetEnable(0));
  EXPECT_EQ(0, reg.IsEnable());
  unsigned len = 4;
  EXPECT_EQ(0, Save(reg, "more"));
  EXPECT_EQ(0, reg.GetData(nullptr, &len));
  reg.SetEnable(1);
  EXPECT_EQ(1, reg.GetData(nullptr, &len));  // discarded
  EXPECT_EQ(0u, reg.GetBytesUsed());

  Save(reg, "lost");
  reg.Abort();
  EXPECT_EQ(1, reg.CanAbort());
  EXPECT_EQ(0u, reg.GetBytesUsed());
  EXPECT_EQ(0, Save(reg, "x"));
  EXPECT_EQ(0, reg.GetData(nullptr, &len));  // aborted: refuses without blocking
  reg.reset();
  EXPECT_EQ(0, reg.CanAbort());
  EXPECT_EQ(1, Save(reg, "x"));
}

TEST(BinBufReg, BlockingReadsWaitForDataOrForTheWholeAmount) {
  BinBuf_reg any(16, 0, 1, 0);
  Save(any, "12345");
  char out[16];
  unsigned len = 8;
  EXPECT_EQ(1, any.GetData(out, &len));  // any data will do: at once
  EXPECT_EQ(5u, len);

  BinBuf_reg all(16, 0, 1, 1);
  Save(all, "12345");
  std::atomic<bool> started{false};
  unsigned got = 8;
  int result = -1;
  std::thread reader([&] {
    started = true;
    result = all.GetData(out, &got);
  });
  LetItBlock(started);
  EXPECT_EQ(1, Save(all, "678"));
  reader.join();
  EXPECT_EQ(1, result);
  EXPECT_EQ(8u, got);
  EXPECT_EQ("12345678", std::string(out, got));

  // More than a fixed register can hold: it returns once the register is full.
  BinBuf_reg small(4, 0, 1, 1);
  started = false;
  got = 10;
  std::thread greedy([&] {
    started = true;
    result = small.GetData(out, &got);
  });
  LetItBlock(started);
  Save(small, "ab");
  Save(small, "cd");
  greedy.join();
  EXPECT_EQ(1, result);
  EXPECT_EQ(4u, got);
}

TEST(BinBufReg, AbortReleasesABlockedReader) {
  for (int waitForAll : {0, 1}) {
    BinBuf_reg reg(16, 0, 1, waitForAll);
    if (waitForAll)
      Save(reg, "abc");  // not enough for the 8 asked
    std::atomic<bool> started{false};
    unsigned len = 8;
    int result = -1;
    std::thread reader([&] {
      started = true;
      char out[16];
      result = reg.GetData(out, &len);
    });
    LetItBlock(started);
    reg.Abort();
    reader.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(8u, len);
    reg.reset();
    EXPECT_EQ(1, Save(reg, "again"));
  }
}

// Abort racing a reader that is just entering GetData. A large growing
// write holds the register's lock meanwhile, so Abort and then the reader
// queue up on it; whichever gets through first, the reader returns (0 when
// Abort came first) and never parks for good. It once could: an Abort that
// ran while the reader waited for the lock found no reader to wake, and the
// reader then waited for data that aborted writes could never bring.
TEST(BinBufReg, AbortRacingAReadersEntryNeverStrandsIt) {
  std::vector<char> big(32u << 20, 'x');
  for (int round = 0; round < 10; ++round) {
    BinBuf_reg reg(16, 1, 1, 1);
    std::atomic<bool> writing{false}, aborting{false};
    std::thread writer([&] {
      writing = true;
      reg.SaveData(big.data(), static_cast<unsigned>(big.size()));
    });
    LetItBlock(writing);
    std::thread aborter([&] {
      aborting = true;
      reg.Abort();
    });
    LetItBlock(aborting);
    std::atomic<int> result{-1};
    std::thread reader([&] {
      char out[16];
      unsigned len = 8;
      result = reg.GetData(out, &len);
    });
    bool const returned = testutil::Eventually([&] { return result.load() != -1; });
    if (!returned) {  // stranded: free it so the test fails instead of hanging
      reg.reset();
      Save(reg, "12345678");
    }
    reader.join();
    aborter.join();
    writer.join();
    ASSERT_TRUE(returned) << "round " << round;
  }
}

// A producer pushes a few megabytes in chunks of varying size through a
// small register; the consumer asks for varying amounts with wait-for-all
// reads. Every byte must arrive once, in order, and every read must return
// exactly what it asked for.
TEST(BinBufReg, ProducerAndConsumerMoveMegabytesThroughASmallRegister) {
  constexpr unsigned kTotal = 3u << 20;
  constexpr unsigned kSize = 4096;  // > largest read + largest write: no stall
  BinBuf_reg pipe(kSize, 0, 1, 1);
  auto byteAt = [](unsigned offset) { return static_cast<char>((offset * 2654435761u) >> 24); };

  std::thread producer([&] {
    std::vector<char> chunk(3000);
    unsigned sent = 0, step = 0;
    while (sent < kTotal) {
      unsigned n = 1 + (step++ * 7919u) % 3000u;
      if (n > kTotal - sent)
        n = kTotal - sent;
      for (unsigned i = 0; i < n; ++i)
        chunk[i] = byteAt(sent + i);
      while (!pipe.SaveData(chunk.data(), n)) {
        ASSERT_FALSE(pipe.CanAbort());
        std::this_thread::yield();  // full: wait for the consumer
      }
      sent += n;
    }
  });

  std::vector<char> got(1024);
  unsigned received = 0, step = 0, mismatches = 0, shortReads = 0;
  while (received < kTotal) {
    unsigned want = 1 + (step++ * 104729u) % 1024u;
    if (want > kTotal - received)
      want = kTotal - received;
    unsigned len = want;
    ASSERT_EQ(1, pipe.GetData(got.data(), &len));
    if (len != want)
      ++shortReads;
    for (unsigned i = 0; i < len; ++i)
      mismatches += got[i] != byteAt(received + i);
    received += len;
  }
  producer.join();
  EXPECT_EQ(0u, shortReads);
  EXPECT_EQ(0u, mismatches);
  EXPECT_EQ(0u, pipe.GetBytesUsed());
}

TEST(BinBufVect, IdsShiftDownOnEraseAndErasedRegistersAreReused) {
  BinBufVect set(2, 32);
  ASSERT_TRUE(set.IsOk());
  for (char const *text : {"one", "two", "three"}) {
    unsigned id = set.append();
    ASSERT_NE(0u, id);
    EXPECT_EQ(1, set.SaveData(id, const_cast<char *>(text), static_cast<unsigned>(std::string(text).size())));
  }
  EXPECT_EQ(3u, set.get_nitens());
  BinBuf_reg *erased = set.search(2);
  EXPECT_EQ(1, set.erase(2));
  EXPECT_EQ(0, set.erase(3));
  char out[32];
  unsigned len = sizeof out;
  EXPECT_EQ(1, set.GetData(2, out, &len));
  EXPECT_EQ("three", std::string(out, len));
  EXPECT_EQ(1, set.GetData(1, out, 3u));  // by value: success only

  EXPECT_EQ(3u, set.append());
  EXPECT_EQ(erased, set.search(3));
  EXPECT_EQ(0u, set.GetBytesUsed(3));
  EXPECT_EQ(32u, set.GetBytesLeft(3));
  EXPECT_EQ(nullptr, set.search(0));
  EXPECT_EQ(nullptr, set.search(4));
  EXPECT_EQ(0, set.SaveData(4, const_cast<char *>("x"), 1));
  EXPECT_EQ(0, set.SetEnable(4, 0));

  unsigned walked = 0;
  for (BinBuf_reg *reg = set.first(); reg; reg = set.next())
    ++walked;
  EXPECT_EQ(3u, walked);
  set.reset();
  EXPECT_EQ(0u, set.get_nitens());
  EXPECT_EQ(nullptr, set.first());

  BinBufVect none(4, 0);
  EXPECT_FALSE(none.IsOk());
  EXPECT_EQ(0u, none.append());
}

}  // namespace
