// The buffers handed along the playback graph: a list of blocks of samples,
// each described by its channel count, byte size and memory (not owned).
// Interleaved audio, which is all the graph carries, uses one block.
#pragma once

#include <cstdint>
#include <span>

namespace vn {

struct AudioBuffer {
  uint32_t numberChannels = 0;  // interleaved channels per frame
  uint32_t dataByteSize = 0;    // bytes at data
  void* data = nullptr;         // not owned
};

using AudioBufferList = std::span<AudioBuffer>;

}  // namespace vn
