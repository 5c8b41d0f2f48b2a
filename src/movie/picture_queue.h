// VNFFPictureQueue: pictures of a movie decoded on the movie's decode queue
// ahead of a consumer on another thread.
//
// The consumer asks for pictures by a key of its own (a frame number) and a
// movie time; each request becomes one item on the decode queue, which
// decodes (and composes) the picture there and hands it over. Pictures come
// back in the order they were asked for, one for each request: a request
// that found no picture (past the end) gives an empty one. At most `depth`
// pictures are asked and not yet taken, those being made included.
//
//   request ──► [decode queue: decode, compose, render] ──► ready ──► take
//                      cancel drops what is asked and what is ready
//
// What a picture is made of:
//   kComposed  the picture with every picture setting of the movie applied
//              (its output size, crop, rotation, colours, subtitles...);
//   kDecoded   the decoded picture as the movie's video effect stream
//              converts it (RGBA at the media's size), copied out of the
//              decoder, untouched by any setting.
// How it is handed over:
//   kImage     a vn::FilterImage that the consumer renders itself (the image
//              owns what it draws from, so it may be rendered on any thread
//              while the queue makes the next picture);
//   kRGBA      RGBA bytes rendered on the decode queue at the size the
//              consumer sets (setRenderSize; the picture's own when none),
//              so that the consumer only copies them (a window).
//
// Threads: every call from one consumer thread, never from the movie's
// decode queue. The decode queue runs the requests and meets the consumer
// only in the hand-over, under the queue's own lock. Audio is not touched:
// a consumer that reads the movie's mix itself (an export through
// readSample) does so while idle() is true, as below.
//
// Writing a file (one picture ahead: picture n + 1 is decoded and composed
// while picture n is encoded):
//
//   VNFFPictureQueue pictures(movie, 1, VNFFPictureQueue::kComposed,
//                             VNFFPictureQueue::kImage);
//   pictures.request(0, timeOf(0));
//   for (int64_t n = 0; n < total; ++n) {
//     std::optional<VNFFPictureQueue::Picture> picture = pictures.take();
//     // the decode queue is idle here: read the audio of frame n
//     if (n + 1 < total)
//       pictures.request(n + 1, timeOf(n + 1));
//     if (picture && picture->image)
//       writer->writeImage(*picture->image);
//   }
//
// Playing: ask while pending() < depth, from the frame the clock will have
// reached once the picture is made (latency()); takeUntil(the clock's frame)
// each turn; cancel() on a seek.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "core/serial_queue.h"
#include "image/filter_image.h"

class VNFFMovie;

class VNFFPictureQueue {
 public:
  enum Source { kComposed, kDecoded };
  enum Delivery { kImage, kRGBA };

  struct Picture {
    int64_t key = 0;   // as asked
    int64_t time = 0;  // movie time asked for, microseconds
    // kImage: the picture; none when the movie had none at that time.
    std::optional<vn::FilterImage> image;
    // kRGBA: width x height pixels, rows top first and width * 4 bytes
    // apart; empty when the movie had no picture at that time.
    std::vector<uint8_t> rgba;
    int width = 0;
    int height = 0;
    bool empty() const { return !image && rgba.empty(); }
  };

  // Pictures of movie, at most depth (at least 1) asked ahead.
  VNFFPictureQueue(std::shared_ptr<VNFFMovie> movie,
                   size_t depth,
                   Source source,
                   Delivery delivery);
  VNFFPictureQueue(const VNFFPictureQueue&) = delete;
  VNFFPictureQueue& operator=(const VNFFPictureQueue&) = delete;
  // Waits until every request made has run on the decode queue and let go
  // of the movie: the movie may go as soon as this returns.
  ~VNFFPictureQueue();

  // Asks for the picture at movie time `time` (microseconds), handed over
  // under `key`. False, asking nothing, when depth pictures are already
  // asked and not taken.
  bool request(int64_t key, int64_t time);
  // The pictures ready whose key is at most `key`, in the order asked;
  // never waits.
  std::vector<Picture> takeUntil(int64_t key);
  // The oldest picture asked and not taken, once it is ready (waits for
  // it); none when nothing is asked since the last cancel.
  std::optional<Picture> take();
  // Forgets every picture asked or ready: requests not yet run do nothing,
  // and pictures being made are dropped when they arrive (they count in
  // inFlight until then, so that the decode queue is never flooded).
  void cancel();
  // The size kRGBA pictures are rendered at (0 by 0: their own); any
  // thread. Pictures already made keep theirs.
  void setRenderSize(int width, int height);

  // Requests on the decode queue not yet handed over, dropped ones included.
  size_t inFlight() const;
  // inFlight, and pictures ready and not taken: what counts against depth.
  size_t pending() const;
  // Nothing of this queue is being made: the decode queue does not read
  // the movie's medias on its behalf.
  bool idle() const { return inFlight() == 0; }
  // The key of the last request since the last cancel that found no
  // picture, or -1.
  int64_t missing() const;
  // Seconds from asking for a picture to having it, smoothed.
  double latency() const;
  size_t depth() const { return depth_; }

 private:
  struct State;

  std::shared_ptr<VNFFMovie> movie_;
  size_t depth_;
  Source source_;
  Delivery delivery_;
  std::shared_ptr<State> state_;  // shared with the requests on the decode queue
  // The last request put on the decode queue: once it has run, every
  // earlier one has (the queue is serial).
  std::shared_ptr<vn::SerialQueue::Operation> last_;
};
