#include "core/fifo_data_buffer.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "test_support.h"

TEST(FIFODataBufferTest, ReadsInOrderAcrossTheSwapAndClears) {
  VNFIFODataBuffer fifo;
  std::vector<uint8_t> out(16, 0xEE);
  // Empty: nothing copied, destination untouched.
  EXPECT_EQ(fifo.readBytes(out.data(), 8), 0u);
  EXPECT_EQ(out[0], 0xEE);
  uint8_t ten[10];
  std::iota(std::begin(ten), std::end(ten), 0);
  fifo.appendBytes(ten, 10);
  EXPECT_EQ(fifo.readBytes(out.data(), 4), 4u);
  // Appended bytes follow those waiting; a short read leaves the rest alone.
  const uint8_t more[3] = {100, 101, 102};
  fifo.appendBytes(more, 3);
  EXPECT_EQ(fifo.readBytes(out.data(), 16), 9u);
  EXPECT_EQ(out, (std::vector<uint8_t>{4, 5, 6, 7, 8, 9, 100, 101, 102, 0xEE, 0xEE, 0xEE, 0xEE,
                                       0xEE, 0xEE, 0xEE}));
  EXPECT_EQ(fifo.length(), 0u);
  fifo.appendBytes(ten, 10);
  fifo.clear();
  EXPECT_EQ(fifo.length(), 0u);
  fifo.appendBytes(more, 3);
  EXPECT_EQ(fifo.readBytes(out.data(), 3), 3u);
  EXPECT_EQ(std::vector(out.begin(), out.begin() + 3), std::vector<uint8_t>(more, more + 3));
}

TEST(FIFODataBufferTest, SteadyStateDoesNotAllocate) {
  VNFIFODataBuffer fifo;
  std::vector<uint8_t> chunk(16384, 7), out(16384);
  auto cycle = [&] {
    fifo.appendBytes(chunk.data(), chunk.size());
    fifo.appendBytes(chunk.data(), chunk.size() / 2);
    const bool whole = fifo.readBytes(out.data(), out.size()) == out.size();
    return fifo.readBytes(out.data(), out.size() / 2) == out.size() / 2 && whole;
  };
  for (int i = 0; i < 4; ++i)
    cycle();  // both arrays grow to the working size
  const uint64_t before = vn::test::allocationCount();
  int allRead = 0;
  for (int i = 0; i < 16; ++i)
    allRead += cycle();
  EXPECT_EQ(std::pair(vn::test::allocationCount() - before, allRead), std::pair(uint64_t{0}, 16));
}

// One writer, one reader, 32 MB in random chunks: every byte, in order.
TEST(FIFODataBufferTest, OneWriterOneReaderKeepOrder) {
  VNFIFODataBuffer fifo;
  constexpr uint64_t kTotal = 32ull << 20;
  std::thread writer([&] {
    std::mt19937 rng(1);
    std::vector<uint8_t> chunk(65536);
    uint64_t written = 0;
    while (written < kTotal) {
      const uint64_t n = std::min<uint64_t>(kTotal - written, 1 + rng() % chunk.size());
      for (uint64_t i = 0; i < n; ++i)
        chunk[i] = static_cast<uint8_t>((written + i) * 131 >> 3);
      fifo.appendBytes(chunk.data(), n);
      written += n;
      if (fifo.length() > (8u << 20))
        std::this_thread::yield();
    }
  });
  std::mt19937 rng(2);
  std::vector<uint8_t> out(65536);
  uint64_t read = 0;
  uint64_t mismatches = 0;
  while (read < kTotal) {
    const uint64_t n = fifo.readBytes(out.data(), 1 + rng() % out.size());
    for (uint64_t i = 0; i < n; ++i) {
      if (out[i] != static_cast<uint8_t>((read + i) * 131 >> 3))
        ++mismatches;
    }
    read += n;
    if (n == 0)
      std::this_thread::yield();
  }
  writer.join();
  EXPECT_EQ(std::tuple(read, mismatches, fifo.length()), std::tuple(kTotal, 0ull, 0ull));
}
