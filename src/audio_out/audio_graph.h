// VNAudioGraph: a small graph of audio units that ends in the sound device.
//
// Each node is a unit of our own, made by type and subtype (four-character
// codes); everything flows as interleaved 32-bit float stereo at 44 100 Hz:
//
//   'aufc' 'conv'  format converter: passes the graph format through
//   'aufc' 'tmpt'  time-pitch: speed without pitch change (kParameterRate)
//   'auou' 'def '  default output: output level (kParameterVolume), then
//                  the sound device (vn::AudioDevice)
//
// A unit's output connects to another unit's input 0. The device pulls the
// output unit, which pulls its input, and so on up to a unit whose input 0
// has a render callback: that asks the callback's delegate for samples
// (streamReadSample) and plays silence when the answer is false.
//
//   created ──start()──► running ──stop()──► created ──start()──► ...
//   (destruction stops the graph first)
//
// start() initialises the units (the output unit opens the device) and
// starts the device; stop() stops and uninitialises them (the device is
// closed, the time-pitch unit forgets what it held). Start failures are
// logged as "AUGraphInitialize (graph)" and "AUGraphStart(graph)", with the
// reason kept in failureReason().
//
// Subclasses build their chain in the hooks createNode() and configNode(),
// which create() runs. Threads: the application thread for every call,
// except that streamReadSample is called on the device thread while the
// graph runs, and that parameters may be set and read on any thread once the
// graph's shape is settled. The shape (nodes, connections, callbacks,
// formats) changes only while the graph is not initialised; those calls do
// nothing otherwise.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "audio_out/audio_buffer_list.h"

namespace vn {
// "aufc" as the 32-bit code 0x61756663.
constexpr uint32_t fourCC(const char (&code)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24 |
         static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(code[3]));
}
}  // namespace vn

class VNAudioGraph {
 public:
  // Unit types and subtypes.
  static constexpr uint32_t kTypeFormatConverter = vn::fourCC("aufc");
  static constexpr uint32_t kTypeOutput = vn::fourCC("auou");
  static constexpr uint32_t kSubTypeConverter = vn::fourCC("conv");
  static constexpr uint32_t kSubTypeTimePitch = vn::fourCC("tmpt");
  static constexpr uint32_t kSubTypeDefaultOutput = vn::fourCC("def ");
  // Scopes of a unit, for setConverterNode.
  static constexpr uint32_t kScopeGlobal = 0;
  static constexpr uint32_t kScopeInput = 1;
  static constexpr uint32_t kScopeOutput = 2;
  // Parameters: the time-pitch unit's rate (1.0 normal speed, clamped to
  // 0.25…4) and the output unit's volume (linear gain, clamped to 0…1).
  static constexpr uint32_t kParameterRate = 0;
  static constexpr uint32_t kParameterVolume = 14;
  // The one format the units carry.
  static constexpr int32_t kSampleRate = 44100;
  static constexpr uint32_t kChannels = 2;
  static constexpr uint32_t kBytesPerFrame = kChannels * sizeof(float);

  // A node's unit, opaque outside the graph.
  struct Unit;

  // An empty graph (the hooks do nothing here).
  static std::shared_ptr<VNAudioGraph> create();
  VNAudioGraph(const VNAudioGraph&) = delete;
  VNAudioGraph& operator=(const VNAudioGraph&) = delete;
  // Stops the graph, then disposes of its units.
  virtual ~VNAudioGraph();

  // Hooks run by create(): make the nodes, then configure them.
  virtual void createNode();
  virtual void configNode();

  // Initialises and starts the graph (see above); failures are logged.
  void start();
  // Stops and uninitialises the graph. After it returns, no render callback
  // is running or will run before the next start().
  void stop();
  // True while the output unit's device runs.
  bool isStart() const;

  // Adds a unit; returns its node id, or 0 for an unknown type/subtype or an
  // initialised graph.
  int32_t createAUNode(uint32_t type, uint32_t subType);
  // Removes a unit and every connection to it.
  void removeAUNode(int32_t node);
  // Feeds source's output into input bus of destination (units have one
  // input, bus 0). Replaces a render callback on that input; a connection
  // that would close a loop is refused.
  void connectNode(int32_t source, int32_t destination, uint32_t bus = 0);
  // Sets the stream format (interleaved float stereo at rate) on the unit in
  // scope mode. Every unit works in that format at kSampleRate already and
  // does no resampling, so this changes nothing.
  void setConverterNode(int32_t node, uint32_t mode, int32_t rate);
  // Installs the render callback on the node's input 0 with this graph, or
  // delegate (not owned; it outlives the graph's running), as the one asked
  // for samples. Replaces a connection on that input.
  void setInputCallbackForNode(int32_t node);
  void setInputCallbackForNode(int32_t node, VNAudioGraph* delegate);

  // Asked by the render callback for frames frames of bus into buffers (read)
  // or handed frames to keep (write). The base class has none: false.
  virtual bool streamReadSample(uint32_t bus, vn::AudioBufferList buffers, int32_t frames);
  virtual bool streamWriteSample(uint32_t bus, vn::AudioBufferList buffers, int32_t frames);

  // The node's unit, or null when there is no such node.
  Unit* audioUnitForNode(int32_t node) const;

  // Sets or reads a unit parameter; any thread. False / nullopt when the
  // node has no such parameter or the value is not a number.
  bool setParameter(int32_t node, uint32_t parameter, float value);
  std::optional<float> parameter(int32_t node, uint32_t parameter) const;

  // Pulls frames frames out of node into buffers (one interleaved buffer of
  // at least frames × kBytesPerFrame bytes), as the device would, on the
  // calling thread. For offline rendering; refused (false) while running.
  bool renderNode(int32_t node, vn::AudioBufferList buffers, int32_t frames);

  // Why the last start() failed ("no sound device: ...").
  std::string failureReason() const { return failureReason_; }

 protected:
  VNAudioGraph();
  // Creates the graph and runs the hooks; create() calls it once.
  virtual void init();
  // The memory of the first buffer when it holds frames frames of the graph
  // format, else null.
  static void* framesIn(vn::AudioBufferList buffers, int32_t frames);

 private:
  struct Graph;

  bool initialize();
  void uninitialize();
  bool run();

  std::unique_ptr<Graph> graph_;  // the units and their state
  std::string failureReason_;     // why the last start failed
};
