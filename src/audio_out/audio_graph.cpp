#include "audio_out/audio_graph.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <map>

#include "audio_out/audio_device.h"
#include "audio_out/time_pitch.h"
#include "core/log.h"

static_assert(VNAudioGraph::kSampleRate == vn::AudioDevice::kSampleRate);
static_assert(VNAudioGraph::kChannels == vn::AudioDevice::kChannels);

namespace {

// The render callback on a unit's input: asks the delegate for the samples
// and, when it has none to give, plays silence over the whole buffer list.
void PushCurrentInputBufferIntoAudioUnit(VNAudioGraph* context,
                                         uint32_t bus,
                                         int32_t frames,
                                         vn::AudioBufferList buffers) {
  if (context->streamReadSample(bus, buffers, frames))
    return;
  for (vn::AudioBuffer& buffer : buffers) {
    if (buffer.data)
      std::memset(buffer.data, 0, buffer.dataByteSize);
  }
}

void silence(float* out, int32_t frames) {
  std::memset(out, 0, static_cast<size_t>(frames) * VNAudioGraph::kBytesPerFrame);
}

}  // namespace

// A unit renders interleaved frames of the graph format, pulling what it
// needs from its input 0. The fields that describe its input are written only
// while the graph is not initialised, so the device thread reads them
// without a lock.
struct VNAudioGraph::Unit {
  Unit(uint32_t type_, uint32_t subType_) : type(type_), subType(subType_) {}
  virtual ~Unit() = default;

  // Writes frames frames at out: the device thread while the graph runs,
  // renderNode's caller otherwise.
  virtual void render(float* out, int32_t frames) = 0;
  virtual bool initialize(std::string* /*reason*/) { return true; }
  virtual void uninitialize() {}
  virtual bool setParameter(uint32_t /*parameter*/, float /*value*/) { return false; }
  virtual std::optional<float> parameter(uint32_t /*parameter*/) const { return std::nullopt; }

  // Fills out from input 0: the render callback, the connected unit, or
  // silence when there is neither.
  void pullInput(float* out, int32_t frames) {
    if (callbackDelegate) {
      vn::AudioBuffer buffer{kChannels, static_cast<uint32_t>(frames) * kBytesPerFrame, out};
      PushCurrentInputBufferIntoAudioUnit(callbackDelegate, 0, frames,
                                          vn::AudioBufferList(&buffer, 1));
    } else if (source) {
      source->render(out, frames);
    } else {
      silence(out, frames);
    }
  }

  const uint32_t type;
  const uint32_t subType;
  Unit* source = nullptr;                    // unit connected to input 0
  VNAudioGraph* callbackDelegate = nullptr;  // asked by input 0's render callback
};

namespace {

// Carries the graph format through unchanged: the samples it is given are
// already what every later unit takes.
struct ConverterUnit final : VNAudioGraph::Unit {
  ConverterUnit() : Unit(VNAudioGraph::kTypeFormatConverter, VNAudioGraph::kSubTypeConverter) {}
  void render(float* out, int32_t frames) override { pullInput(out, frames); }
};

struct TimePitchUnit final : VNAudioGraph::Unit {
  TimePitchUnit()
      : Unit(VNAudioGraph::kTypeFormatConverter, VNAudioGraph::kSubTypeTimePitch),
        timePitch(VNAudioGraph::kSampleRate, VNAudioGraph::kChannels) {}

  void render(float* out, int32_t frames) override {
    timePitch.process(out, frames, &TimePitchUnit::pull, this);
  }
  // An uninitialised unit starts afresh.
  void uninitialize() override { timePitch.reset(); }
  bool setParameter(uint32_t parameter, float value) override {
    if (parameter != VNAudioGraph::kParameterRate || std::isnan(value))
      return false;
    timePitch.setRate(value);
    return true;
  }
  std::optional<float> parameter(uint32_t parameter) const override {
    if (parameter != VNAudioGraph::kParameterRate)
      return std::nullopt;
    return timePitch.rate();
  }

  static void pull(void* self, float* out, int32_t frames) {
    static_cast<TimePitchUnit*>(self)->pullInput(out, frames);
  }

  vn::TimePitch timePitch;
};

// The output level, then the device. The device is open while the unit is
// initialised, so a stopped graph holds no sound device.
struct OutputUnit final : VNAudioGraph::Unit {
  OutputUnit()
      : Unit(VNAudioGraph::kTypeOutput, VNAudioGraph::kSubTypeDefaultOutput),
        device(&OutputUnit::renderDevice, this) {}

  void render(float* out, int32_t frames) override {
    pullInput(out, frames);
    const float level = volume.load(std::memory_order_relaxed);
    if (level == 1.0f)
      return;
    const size_t samples = static_cast<size_t>(frames) * VNAudioGraph::kChannels;
    for (size_t i = 0; i < samples; ++i)
      out[i] *= level;
  }
  bool initialize(std::string* reason) override {
    if (device.open())
      return true;
    *reason = device.failureReason();
    return false;
  }
  void uninitialize() override { device.close(); }
  bool setParameter(uint32_t parameter, float value) override {
    if (parameter != VNAudioGraph::kParameterVolume || std::isnan(value))
      return false;
    volume.store(std::clamp(value, 0.0f, 1.0f), std::memory_order_relaxed);
    return true;
  }
  std::optional<float> parameter(uint32_t parameter) const override {
    if (parameter != VNAudioGraph::kParameterVolume)
      return std::nullopt;
    return volume.load(std::memory_order_relaxed);
  }

  static void renderDevice(void* self, float* out, int32_t frames) {
    static_cast<OutputUnit*>(self)->render(out, frames);
  }

  std::atomic<float> volume{1.0f};
  vn::AudioDevice device;
};

}  // namespace

struct VNAudioGraph::Graph {
  // The output unit the device plays, if the graph has one.
  OutputUnit* output() const {
    for (const auto& [node, unit] : units) {
      if (unit->type == kTypeOutput)
        return static_cast<OutputUnit*>(unit.get());
    }
    return nullptr;
  }

  std::map<int32_t, std::unique_ptr<Unit>> units;  // by node id
  int32_t lastNode = 0;                            // the last node id handed out
  bool initialized = false;
};

std::shared_ptr<VNAudioGraph> VNAudioGraph::create() {
  std::shared_ptr<VNAudioGraph> graph(new VNAudioGraph());
  graph->init();
  return graph;
}

VNAudioGraph::VNAudioGraph() = default;

void VNAudioGraph::init() {
  graph_ = std::make_unique<Graph>();
  // A unit is ready to use as soon as it is added; there is no separate
  // opening step between making the nodes and configuring them.
  createNode();
  configNode();
}

VNAudioGraph::~VNAudioGraph() {
  if (!graph_)
    return;
  stop();
  graph_.reset();
}

void VNAudioGraph::createNode() {}

void VNAudioGraph::configNode() {}

void VNAudioGraph::start() {
  // Initialised but not running means the device went away (unplugged, the
  // sound server ended) or never started: open it afresh.
  if (graph_->initialized && !isStart())
    uninitialize();
  // As with the platform graph this mirrors, the start is tried even after a
  // failed initialisation, and fails in turn.
  if (!initialize())
    vn_log("AUGraphInitialize (graph)");
  if (!run())
    vn_log("AUGraphStart(graph)");
}

bool VNAudioGraph::initialize() {
  if (graph_->initialized)
    return true;
  for (auto it = graph_->units.begin(); it != graph_->units.end(); ++it) {
    if (it->second->initialize(&failureReason_))
      continue;
    for (auto done = graph_->units.begin(); done != it; ++done)
      done->second->uninitialize();
    return false;
  }
  graph_->initialized = true;
  return true;
}

bool VNAudioGraph::run() {
  if (!graph_->initialized)
    return false;
  OutputUnit* output = graph_->output();
  if (!output) {
    failureReason_ = "the audio graph has no output unit";
    return false;
  }
  if (!output->device.start()) {
    failureReason_ = output->device.failureReason();
    return false;
  }
  return true;
}

void VNAudioGraph::stop() {
  if (OutputUnit* output = graph_->output())
    output->device.stop();
  uninitialize();
}

void VNAudioGraph::uninitialize() {
  if (!graph_->initialized)
    return;
  for (auto& [node, unit] : graph_->units)
    unit->uninitialize();
  graph_->initialized = false;
}

bool VNAudioGraph::isStart() const {
  const OutputUnit* output = graph_->output();
  return output && output->device.isRunning();
}

int32_t VNAudioGraph::createAUNode(uint32_t type, uint32_t subType) {
  if (graph_->initialized)
    return 0;
  std::unique_ptr<Unit> unit;
  if (type == kTypeFormatConverter && subType == kSubTypeConverter) {
    unit = std::make_unique<ConverterUnit>();
  } else if (type == kTypeFormatConverter && subType == kSubTypeTimePitch) {
    unit = std::make_unique<TimePitchUnit>();
  } else if (type == kTypeOutput && subType == kSubTypeDefaultOutput) {
    unit = std::make_unique<OutputUnit>();
  } else {
    return 0;
  }
  const int32_t node = ++graph_->lastNode;
  graph_->units.emplace(node, std::move(unit));
  return node;
}

void VNAudioGraph::removeAUNode(int32_t node) {
  Unit* unit = audioUnitForNode(node);
  if (!unit || graph_->initialized)
    return;
  for (auto& [other, otherUnit] : graph_->units) {
    if (otherUnit->source == unit)
      otherUnit->source = nullptr;
  }
  graph_->units.erase(node);
}

void VNAudioGraph::connectNode(int32_t source, int32_t destination, uint32_t bus) {
  Unit* from = audioUnitForNode(source);
  Unit* to = audioUnitForNode(destination);
  if (!from || !to || bus != 0 || graph_->initialized)
    return;
  // The chain upstream of source must not pass through destination, or a
  // render would pull round the loop for ever.
  for (Unit* up = from; up; up = up->source) {
    if (up == to)
      return;
  }
  to->source = from;
  to->callbackDelegate = nullptr;
}

void VNAudioGraph::setConverterNode(int32_t /*node*/, uint32_t /*mode*/, int32_t /*rate*/) {
  // Every unit already works in interleaved float stereo at kSampleRate, so
  // that format changes nothing, and the units do no resampling that another
  // rate would need.
}

void VNAudioGraph::setInputCallbackForNode(int32_t node) {
  setInputCallbackForNode(node, this);
}

void VNAudioGraph::setInputCallbackForNode(int32_t node, VNAudioGraph* delegate) {
  Unit* unit = audioUnitForNode(node);
  if (!unit || graph_->initialized)
    return;
  unit->callbackDelegate = delegate;
  unit->source = nullptr;
}

bool VNAudioGraph::streamReadSample(uint32_t, vn::AudioBufferList, int32_t) {
  return false;
}

bool VNAudioGraph::streamWriteSample(uint32_t, vn::AudioBufferList, int32_t) {
  return false;
}

VNAudioGraph::Unit* VNAudioGraph::audioUnitForNode(int32_t node) const {
  const auto it = graph_->units.find(node);
  return it == graph_->units.end() ? nullptr : it->second.get();
}

bool VNAudioGraph::setParameter(int32_t node, uint32_t parameter, float value) {
  Unit* unit = audioUnitForNode(node);
  return unit && unit->setParameter(parameter, value);
}

std::optional<float> VNAudioGraph::parameter(int32_t node, uint32_t parameter) const {
  const Unit* unit = audioUnitForNode(node);
  return unit ? unit->parameter(parameter) : std::nullopt;
}

bool VNAudioGraph::renderNode(int32_t node, vn::AudioBufferList buffers, int32_t frames) {
  Unit* unit = audioUnitForNode(node);
  void* out = framesIn(buffers, frames);
  if (!unit || !out || isStart())
    return false;
  unit->render(static_cast<float*>(out), frames);
  return true;
}

void* VNAudioGraph::framesIn(vn::AudioBufferList buffers, int32_t frames) {
  if (frames < 0 || buffers.empty() ||
      buffers[0].dataByteSize < static_cast<uint64_t>(frames) * kBytesPerFrame) {
    return nullptr;
  }
  return buffers[0].data;
}
