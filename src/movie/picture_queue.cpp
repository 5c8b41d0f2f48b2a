#include "movie/picture_queue.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "ffmpeg/owners.h"
#include "image/affine_transform.h"
#include "image/bitmap_image.h"
#include "movie/movie.h"

namespace {

// The latency assumed before the first picture arrives, seconds.
constexpr double kFirstLatency = 0.02;
// How much of the smoothed latency each new measure replaces.
constexpr double kLatencyWeight = 0.2;

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The image drawn into width x height RGBA bytes, stretched over them; at
// its own size when either is 0. Empty when it cannot be rendered.
std::vector<uint8_t> renderAt(const vn::FilterImage& image, int width, int height) {
  const vn::Rect extent = image.extent();
  if (image.isEmpty() || image.isInfinite())
    return {};
  if (width <= 0 || height <= 0 ||
      (width == static_cast<int>(extent.width) && height == static_cast<int>(extent.height)))
    return image.render(extent);
  // Moved to the origin, then scaled.
  const vn::FilterImage scaled =
      image.transformed(vn::AffineTransform::identity()
                            .scaled(width / extent.width, height / extent.height)
                            .translated(-extent.x, -extent.y));
  return scaled.render(vn::Rect{0, 0, static_cast<double>(width), static_cast<double>(height)});
}

// RGBA rows `stride` bytes apart (a decoder pads them) scaled to
// width x height (bilinear) through scaler, and packed: width * 4 bytes a
// row. At their own size when the size is 0, or when they cannot be scaled.
std::vector<uint8_t> scaleRGBA(const std::vector<uint8_t>& rgba,
                               int fromW,
                               int fromH,
                               int stride,
                               int width,
                               int height,
                               vn::ff::Sws& scaler) {
  const size_t packed = static_cast<size_t>(fromW) * 4;
  const auto asTheyAre = [&] {
    if (static_cast<size_t>(stride) == packed)
      return rgba;
    std::vector<uint8_t> out(packed * fromH);
    for (int y = 0; y < fromH; ++y) {
      std::copy_n(rgba.begin() + static_cast<ptrdiff_t>(y) * stride, packed,
                  out.begin() + static_cast<ptrdiff_t>(y * packed));
    }
    return out;
  };
  if (width <= 0 || height <= 0 || (width == fromW && height == fromH))
    return asTheyAre();
  scaler.reset(sws_getCachedContext(scaler.release(), fromW, fromH, AV_PIX_FMT_RGBA, width, height,
                                    AV_PIX_FMT_RGBA, SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (!scaler)
    return asTheyAre();
  std::vector<uint8_t> out(static_cast<size_t>(width) * height * 4);
  const uint8_t* from[4] = {rgba.data(), nullptr, nullptr, nullptr};
  const int fromStride[4] = {stride, 0, 0, 0};
  uint8_t* to[4] = {out.data(), nullptr, nullptr, nullptr};
  const int toStride[4] = {width * 4, 0, 0, 0};
  if (sws_scale(scaler.get(), from, fromStride, 0, fromH, to, toStride) != height)
    return asTheyAre();
  return out;
}

}  // namespace

// What the consumer and the decode queue share.
struct VNFFPictureQueue::State {
  mutable std::mutex lock;
  std::condition_variable changed;
  // Guarded by lock.
  uint64_t generation = 0;  // counts cancels: pictures asked before are dropped
  size_t inFlight = 0;      // requests not yet handed over, of any generation
  size_t asked = 0;         // of them, those of this generation
  std::deque<Picture> ready;
  int64_t missing = -1;
  double latency = kFirstLatency;
  int renderWidth = 0, renderHeight = 0;
  // Decode queue only: scales decoded pictures to the render size.
  vn::ff::Sws scaler;

  std::pair<int, int> renderSize() {
    std::lock_guard<std::mutex> hold(lock);
    return {renderWidth, renderHeight};
  }

  bool isCurrent(uint64_t of) {
    std::lock_guard<std::mutex> hold(lock);
    return of == generation;
  }

  // Decode queue: makes the picture asked for under key at time (in
  // generation `of`) and hands it over.
  void make(VNFFMovie& movie,
            int64_t key,
            int64_t time,
            uint64_t of,
            double askedAt,
            Source source,
            Delivery delivery) {
    Picture picture;
    picture.key = key;
    picture.time = time;
    // Cancelled before it ran: nothing is decoded.
    if (!isCurrent(of))
      return handOver(std::move(picture), of, std::nullopt);
    std::optional<vn::FilterImage> image;
    VNFFMovieImageProvider::DataBuffer bytes;
    VNFFVideoFormat format{};
    auto provider = std::make_shared<VNFFMovieImageProvider>();
    if (source == kComposed) {
      provider->movieMediaEffectImage = [&image](VNFFMovie&, std::optional<vn::FilterImage> i) {
        image = std::move(i);
      };
    } else {
      // The converted picture's own bytes (RGBA rows at the media's size),
      // copied while they are still the decoder's.
      provider->movieFormatSize = [&](VNFFMovie&, VNFFVideoFormat f, int32_t size) {
        format = f;
        bytes = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(std::max(size, 0)));
        return bytes;
      };
      provider->movieMediaImage = [&](VNFFMovie&, std::optional<vn::FilterImage> plain) {
        // The copy holds the picture's rows as the converter laid them out:
        // each padded to its alignment, so rows are size / height bytes
        // apart, at least width * 4.
        if (!plain || !bytes || format.width <= 0 || format.height <= 0 ||
            bytes->size() % static_cast<size_t>(format.height) != 0)
          return;
        const size_t stride = bytes->size() / static_cast<size_t>(format.height);
        if (stride < static_cast<size_t>(format.width) * 4 || stride > INT32_MAX)
          return;
        if (delivery == kImage) {
          image = vn::FilterImage::fromBitmap(
              vn::BitmapImage::borrow(bytes->data(), format.width, format.height, stride, bytes));
        } else if (isCurrent(of)) {
          // A plain resize: the scaler is quicker at it than a render.
          const auto [w, h] = renderSize();
          picture.rgba = scaleRGBA(*bytes, format.width, format.height, static_cast<int>(stride), w,
                                   h, scaler);
          const bool scaled = picture.rgba.size() == static_cast<size_t>(w) * h * 4;
          picture.width = scaled && w > 0 ? w : format.width;
          picture.height = scaled && h > 0 ? h : format.height;
        }
      };
    }
    movie.decodeImageAtTime(time, provider, true);
    if (delivery == kImage) {
      picture.image = std::move(image);
    } else if (image && isCurrent(of)) {
      const auto [w, h] = renderSize();
      const vn::Rect extent = image->extent();
      picture.rgba = renderAt(*image, w, h);
      if (!picture.rgba.empty()) {
        picture.width = w > 0 && h > 0 ? w : static_cast<int>(extent.width);
        picture.height = w > 0 && h > 0 ? h : static_cast<int>(extent.height);
      }
    }
    handOver(std::move(picture), of, askedAt);
  }

  // Decode queue: the picture asked at askedAt (steady seconds; none when it
  // was not made) arrives: empty when the movie had none, dropped when it is
  // no longer wanted.
  void handOver(Picture picture, uint64_t of, std::optional<double> askedAt) {
    {
      std::lock_guard<std::mutex> hold(lock);
      --inFlight;
      if (askedAt)
        latency = (1 - kLatencyWeight) * latency + kLatencyWeight * (steadySeconds() - *askedAt);
      if (of == generation) {
        --asked;
        if (picture.empty())
          missing = picture.key;
        ready.push_back(std::move(picture));
      }
    }
    changed.notify_all();
  }
};

VNFFPictureQueue::VNFFPictureQueue(std::shared_ptr<VNFFMovie> movie,
                                   size_t depth,
                                   Source source,
                                   Delivery delivery)
    : movie_(std::move(movie)),
      depth_(std::max<size_t>(depth, 1)),
      source_(source),
      delivery_(delivery),
      state_(std::make_shared<State>()) {}

VNFFPictureQueue::~VNFFPictureQueue() {
  // A request holds the movie until it has run; the movie must not end on
  // its own decode queue, nor the process while the queue still composes.
  if (last_)
    last_->wait();
}

bool VNFFPictureQueue::request(int64_t key, int64_t time) {
  const std::shared_ptr<State> state = state_;
  uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> hold(state->lock);
    if (state->inFlight + state->ready.size() >= depth_)
      return false;
    ++state->inFlight;
    ++state->asked;
    generation = state->generation;
  }
  const double askedAt = steadySeconds();
  const Source source = source_;
  const Delivery delivery = delivery_;
  std::shared_ptr<VNFFMovie> movie = movie_;
  last_ = movie_->decodeQueue().addOperation(
      [state, movie, key, time, generation, askedAt, source, delivery] {
        state->make(*movie, key, time, generation, askedAt, source, delivery);
      });
  return true;
}

std::vector<VNFFPictureQueue::Picture> VNFFPictureQueue::takeUntil(int64_t key) {
  std::vector<Picture> due;
  std::lock_guard<std::mutex> hold(state_->lock);
  while (!state_->ready.empty() && state_->ready.front().key <= key) {
    due.push_back(std::move(state_->ready.front()));
    state_->ready.pop_front();
  }
  return due;
}

std::optional<VNFFPictureQueue::Picture> VNFFPictureQueue::take() {
  std::unique_lock<std::mutex> hold(state_->lock);
  state_->changed.wait(hold, [&] { return !state_->ready.empty() || state_->asked == 0; });
  if (state_->ready.empty())
    return std::nullopt;
  Picture picture = std::move(state_->ready.front());
  state_->ready.pop_front();
  return picture;
}

void VNFFPictureQueue::cancel() {
  std::lock_guard<std::mutex> hold(state_->lock);
  ++state_->generation;
  state_->asked = 0;
  state_->ready.clear();
  state_->missing = -1;
}

void VNFFPictureQueue::setRenderSize(int width, int height) {
  std::lock_guard<std::mutex> hold(state_->lock);
  state_->renderWidth = width;
  state_->renderHeight = height;
}

size_t VNFFPictureQueue::inFlight() const {
  std::lock_guard<std::mutex> hold(state_->lock);
  return state_->inFlight;
}

size_t VNFFPictureQueue::pending() const {
  std::lock_guard<std::mutex> hold(state_->lock);
  return state_->inFlight + state_->ready.size();
}

int64_t VNFFPictureQueue::missing() const {
  std::lock_guard<std::mutex> hold(state_->lock);
  return state_->missing;
}

double VNFFPictureQueue::latency() const {
  std::lock_guard<std::mutex> hold(state_->lock);
  return state_->latency;
}
