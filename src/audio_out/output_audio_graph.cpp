#include "audio_out/output_audio_graph.h"

std::shared_ptr<VNOutputAudioGraph> VNOutputAudioGraph::create() {
  std::shared_ptr<VNOutputAudioGraph> graph(new VNOutputAudioGraph());
  graph->init();
  return graph;
}

VNOutputAudioGraph::VNOutputAudioGraph() = default;

void VNOutputAudioGraph::init() {
  VNAudioGraph::init();
  dataBuffer_ = std::make_shared<VNFIFODataBuffer>();
}

VNOutputAudioGraph::~VNOutputAudioGraph() {
  setDelegate(nullptr);
  // The device thread reads the FIFO: it stops before the FIFO goes.
  stop();
  dataBuffer_.reset();
}

void VNOutputAudioGraph::createNode() {
  outputConverterNode_ = createAUNode(kTypeFormatConverter, kSubTypeConverter);
  outputNode_ = createAUNode(kTypeOutput, kSubTypeDefaultOutput);
  speedNode_ = createAUNode(kTypeFormatConverter, kSubTypeTimePitch);
  connectNode(outputConverterNode_, speedNode_);
  connectNode(speedNode_, outputNode_);
}

void VNOutputAudioGraph::configNode() {
  setInputCallbackForNode(outputConverterNode_);
  setConverterNode(outputConverterNode_, kScopeInput, kSampleRate);
}

void VNOutputAudioGraph::setRate(float rate) {
  setParameter(speedNode_, kParameterRate, rate);
}

float VNOutputAudioGraph::rate() const {
  return parameter(speedNode_, kParameterRate).value_or(0.0f);
}

void VNOutputAudioGraph::setVolume(float volume) {
  setParameter(outputNode_, kParameterVolume, volume);
}

float VNOutputAudioGraph::volume() const {
  return parameter(outputNode_, kParameterVolume).value_or(0.0f);
}

bool VNOutputAudioGraph::streamReadSample(uint32_t /*bus*/,
                                          vn::AudioBufferList buffers,
                                          int32_t frames) {
  void* bytes = framesIn(buffers, frames);
  return bytes && readSample(bytes, frames);
}

bool VNOutputAudioGraph::streamWriteSample(uint32_t /*bus*/,
                                           vn::AudioBufferList buffers,
                                           int32_t frames) {
  const void* bytes = framesIn(buffers, frames);
  return bytes && writeSample(bytes, frames);
}

bool VNOutputAudioGraph::readSample(void* bytes, int32_t frames) {
  decodeMoreAudioDataToAudioOutput();
  if (frames < 0)
    return false;
  const uint64_t wanted = static_cast<uint64_t>(frames) * kBytesPerFrame;
  return dataBuffer_->readBytes(bytes, wanted) == wanted;
}

bool VNOutputAudioGraph::writeSample(const void* bytes, int32_t frames) {
  if (frames > 0)
    dataBuffer_->appendBytes(bytes, static_cast<uint64_t>(frames) * kBytesPerFrame);
  return true;
}

uint64_t VNOutputAudioGraph::bufferFrames() {
  return dataBuffer_->length() / kBytesPerFrame;
}

void VNOutputAudioGraph::clearBuffer() {
  dataBuffer_->clear();
}

void VNOutputAudioGraph::decodeMoreAudioDataToAudioOutput() {
  if (VNOutputAudioGraphDelegate* d = delegate_.load(std::memory_order_acquire)) {
    d->decodeMoreAudioDataToAudioOutput();
  }
}

void VNOutputAudioGraph::audioOutputForwordSample(double sample) {
  if (VNOutputAudioGraphDelegate* d = delegate_.load(std::memory_order_acquire)) {
    d->audioOutputForwordSample(sample);
  }
}

void VNOutputAudioGraph::setDelegate(VNOutputAudioGraphDelegate* delegate) {
  delegate_.store(delegate, std::memory_order_release);
}

VNOutputAudioGraphDelegate* VNOutputAudioGraph::delegate() const {
  return delegate_.load(std::memory_order_acquire);
}
