#include "core/fifo_data_buffer.h"

#include <algorithm>
#include <cstring>

bool VNFIFODataBuffer::appendBytes(const void* bytes, uint64_t length) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  const auto* p = static_cast<const uint8_t*>(bytes);
  writeData_.insert(writeData_.end(), p, p + length);
  return true;
}

uint64_t VNFIFODataBuffer::readBytesHelper(uint8_t* bytes, uint64_t length) {
  const uint64_t available = readData_.size() - readIndex_;
  const uint64_t n = std::min(available, length);
  if (n > 0)
    std::memcpy(bytes, readData_.data() + readIndex_, n);
  readIndex_ += n;
  if (readIndex_ < readData_.size())
    return n;
  // The read array is exhausted: the filled array becomes the read array and
  // the old one, truncated, is recycled for writing.
  readIndex_ = 0;
  std::swap(readData_, writeData_);
  writeData_.clear();
  return n;
}

uint64_t VNFIFODataBuffer::readBytes(void* bytes, uint64_t length) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  const uint64_t total = this->length();
  auto* dest = static_cast<uint8_t*>(bytes);
  uint64_t n = readBytesHelper(dest, length);
  // After the first call drained the read array, all of the former write
  // array is readable: a second call always suffices.
  if (n < length && n < total)
    n += readBytesHelper(dest + n, length - n);
  return n;
}

uint64_t VNFIFODataBuffer::length() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return readData_.size() + writeData_.size() - readIndex_;
}

void VNFIFODataBuffer::clear() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  writeData_.clear();
  readData_.clear();
  readIndex_ = 0;
}

VNFIFODataBuffer::Bytes VNFIFODataBuffer::readData() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return readData_;
}

void VNFIFODataBuffer::setReadData(Bytes data) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  readData_ = std::move(data);
  readIndex_ = std::min<uint64_t>(readIndex_, readData_.size());
}

VNFIFODataBuffer::Bytes VNFIFODataBuffer::writeData() {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  return writeData_;
}

void VNFIFODataBuffer::setWriteData(Bytes data) {
  std::lock_guard<std::recursive_mutex> guard(lock_);
  writeData_ = std::move(data);
}
