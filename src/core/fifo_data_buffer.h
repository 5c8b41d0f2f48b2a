// VNFIFODataBuffer: a thread-safe, unbounded first-in-first-out byte queue.
//
// The decode side appends mixed PCM; the audio device thread drains it.
// Two arrays are used: writes go to the end of the write array, reads take
// from the read array, and when the read array runs dry the two swap. The
// emptied array is recycled for writing, so once both have grown to the
// working size, streaming allocates nothing.
//
// Every public call takes the buffer's own recursive lock, held only for the
// copy and never across a wait.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

class VNFIFODataBuffer {
 public:
  using Bytes = std::vector<uint8_t>;

  VNFIFODataBuffer() = default;
  VNFIFODataBuffer(const VNFIFODataBuffer&) = delete;
  VNFIFODataBuffer& operator=(const VNFIFODataBuffer&) = delete;
  ~VNFIFODataBuffer() = default;

  // Appends length bytes behind everything queued. Always true.
  bool appendBytes(const void* bytes, uint64_t length);

  // Copies up to length of the oldest bytes into bytes and returns how many
  // were copied. Never blocks and never pads: on a short read the rest of
  // the destination is left untouched.
  uint64_t readBytes(void* bytes, uint64_t length);

  // Number of bytes queued.
  uint64_t length();

  // Drops everything queued.
  void clear();

  // Copies of the two arrays, and replacing them (whole, under the lock).
  Bytes readData();
  void setReadData(Bytes data);
  Bytes writeData();
  void setWriteData(Bytes data);

 private:
  // Copies from the read array alone; swaps the arrays when the read array
  // is exhausted (also when it was empty already). Called with the lock.
  uint64_t readBytesHelper(uint8_t* bytes, uint64_t length);

  std::recursive_mutex lock_;
  // Guarded by lock_.
  uint64_t readIndex_ = 0;  // bytes of readData_ already consumed
  Bytes readData_;          // the array being drained
  Bytes writeData_;         // the array being filled
};
