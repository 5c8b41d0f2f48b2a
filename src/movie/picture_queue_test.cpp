// Pictures decoded ahead of a consumer, what the movie tells of its video, and
// the clock that playback follows.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <tuple>
#include <vector>

#include "core/serial_queue.h"
#include "media/media_source.h"
#include "movie/movie.h"
#include "movie/picture_queue.h"
#include "movie/playback_clock.h"
#include "test_support.h"

namespace {

constexpr int64_t kFrame = 40000;  // microseconds, at 25 frames a second

std::shared_ptr<VNFFMovie> movieOf(const std::string& name) {
  auto movie = VNFFMovie::create();
  auto medias = VNMediaSource::mediaWithPath(vn::test::fixture(name))->createMedias();
  movie->openMedias(medias ? *medias : VNFFMovie::Medias{});
  movie->setExportMovie(true);
  return movie;
}

// Holds the decode queue until released, so that requests wait behind it.
struct Gate {
  std::promise<void> open;
  explicit Gate(VNFFMovie& movie) {
    movie.decodeQueue().addOperation([f = open.get_future().share()] { f.wait(); });
  }
  void release() { open.set_value(); }
};

TEST(PictureQueueTest, DeliversInOrderAtTheSizeAskedWithinItsDepth) {
  using Q = VNFFPictureQueue;
  auto movie = movieOf("counter.mp4");    // 320x240
  movie->setOutputVideoSize({160, 120});  // composed pictures only
  struct Case {
    Q::Source source;
    Q::Delivery delivery;
    int renderW, renderH;  // kRGBA: asked; 0: the picture's own
    int wantW, wantH;
  } cases[] = {
      {Q::kComposed, Q::kImage, 0, 0, 160, 120},   {Q::kDecoded, Q::kImage, 0, 0, 320, 240},
      {Q::kComposed, Q::kRGBA, 0, 0, 160, 120},    {Q::kComposed, Q::kRGBA, 64, 36, 64, 36},
      {Q::kDecoded, Q::kRGBA, 0, 0, 320, 240},     {Q::kDecoded, Q::kRGBA, 320, 240, 320, 240},
      {Q::kDecoded, Q::kRGBA, 640, 480, 640, 480},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.source << "/" << c.delivery << " " << c.renderW);
    Q queue(movie, 2, c.source, c.delivery);
    queue.setRenderSize(c.renderW, c.renderH);
    Gate gate(*movie);
    EXPECT_TRUE(queue.request(7, 7 * kFrame + kFrame / 2));
    EXPECT_TRUE(queue.request(8, 8 * kFrame + kFrame / 2));
    EXPECT_FALSE(queue.request(9, 9 * kFrame));  // two asked ahead at most
    EXPECT_EQ(queue.pending(), 2u);
    EXPECT_TRUE(queue.takeUntil(8).empty());  // nothing is ready behind the gate
    gate.release();
    for (int64_t key : {7, 8}) {
      std::optional<Q::Picture> p = queue.take();
      ASSERT_TRUE(p);
      EXPECT_EQ(p->key, key);
      // An image is still drawable here, off the decode queue.
      const std::vector<uint8_t> rgba = p->image ? p->image->render() : p->rgba;
      const vn::Rect extent = p->image ? p->image->extent() : vn::Rect{0, 0, 0, 0};
      EXPECT_EQ(p->image ? extent.width : p->width, c.wantW);
      EXPECT_EQ(p->image ? extent.height : p->height, c.wantH);
      EXPECT_EQ(rgba.size(), size_t(c.wantW) * c.wantH * 4);
      EXPECT_EQ(p->image.has_value(), c.delivery == Q::kImage);
    }
    EXPECT_FALSE(queue.take());  // nothing asked: no wait
    EXPECT_TRUE(queue.idle());
  }
}

TEST(PictureQueueTest, CancelDropsWhatIsAskedAndReadyAndTheEndGivesNone) {
  auto movie = movieOf("counter.mp4");
  VNFFPictureQueue queue(movie, 4, VNFFPictureQueue::kComposed, VNFFPictureQueue::kRGBA);
  ASSERT_TRUE(queue.request(1, kFrame + kFrame / 2));
  movie->flushOperation();  // picture 1 is ready
  Gate gate(*movie);
  ASSERT_TRUE(queue.request(2, 2 * kFrame + kFrame / 2));
  queue.cancel();
  EXPECT_TRUE(queue.takeUntil(2).empty());
  EXPECT_FALSE(queue.take());
  // The stale request still counts until it has run: seeks never flood the
  // decode queue.
  EXPECT_TRUE(queue.request(100, 100 * kFrame + kFrame / 2));
  EXPECT_EQ(queue.inFlight(), 2u);
  EXPECT_TRUE(queue.request(10000, 10000 * kFrame));  // past the end
  gate.release();
  for (auto [key, empty] : {std::pair{100, false}, std::pair{10000, true}}) {
    std::optional<VNFFPictureQueue::Picture> p = queue.take();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->key, key);
    EXPECT_EQ(p->empty(), empty);
  }
  EXPECT_EQ(queue.missing(), 10000);
  EXPECT_FALSE(queue.take());
  EXPECT_GT(queue.latency(), 0);
}

TEST(PictureQueueTest, DestructionWaitsForTheRequestsMade) {
  auto movie = movieOf("counter.mp4");
  std::weak_ptr<VNFFMovie> alive = movie;
  {
    VNFFPictureQueue queue(movie, 2, VNFFPictureQueue::kComposed, VNFFPictureQueue::kImage);
    Gate gate(*movie);
    queue.request(0, kFrame / 2);
    queue.request(1, kFrame + kFrame / 2);
    movie.reset();
    gate.release();
  }
  // Every request has run and let go of the movie: it went with the queue,
  // on this thread, not on its own decode queue.
  EXPECT_TRUE(alive.expired());
}

TEST(MovieVideoTest, RateSizeAndShownSize) {
  struct Case {
    const char* name;
    int num, den;  // exact rate
    float rate;
    double width, height, rotation;
    bool aspect, even;
    double shownW, shownH;
  } cases[] = {
      {"h264_2997.mp4", 30000, 1001, 29.97f, 320, 240, 0, true, true, 320, 240},
      {"h264_23976.mp4", 24000, 1001, 23.97f, 320, 240, 90, false, false, 240, 320},
      {"dvd_pal.mpg", 25, 1, 25, 720, 576, 0, true, false, 1024, 576},  // pixels 64:45
      {"dvd_pal.mpg", 25, 1, 25, 720, 576, -270, true, true, 576, 1024},
      {"dvd_pal.mpg", 25, 1, 25, 720, 576, 180, false, true, 720, 576},
      {"aac.m4a", 25, 1, 0, 0, 0, 0, true, true, 2, 2},  // no video
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " " << c.rotation);
    auto movie = movieOf(c.name);
    const AVRational r = movie->exactFramerate();
    const vn::Size size = movie->videoSize();
    const vn::Size shown = movie->shownVideoSize(c.rotation, c.aspect, c.even);
    EXPECT_EQ(std::tuple(movie->videoMedia() != nullptr, r.num, r.den, movie->framerate()),
              std::tuple(c.width > 0, c.num, c.den, c.rate));
    EXPECT_EQ(std::tuple(size.width, size.height, shown.width, shown.height),
              std::tuple(c.width, c.height, c.shownW, c.shownH));
  }
}

TEST(PlaybackClockTest, FollowsTheAudioAndCarriesOnAtTheRateForOneStep) {
  auto movie = VNFFMovie::create();
  movie->configOutputFormat(VNFFMovie::defaultOutputFormat());  // no medias: no device
  const double step = VNFFMovie::playbackChunkSeconds();
  EXPECT_DOUBLE_EQ(step, 2048.0 / 44100);
  double steady = 100;
  VNPlaybackClock audio(movie, true, [&] { return steady; });
  audio.seek(10);
  EXPECT_DOUBLE_EQ(audio.now(), 10);
  audio.setRate(2);
  audio.setRunning(true);
  steady += step / 4;
  EXPECT_NEAR(audio.now(), 10 + step / 2, 1e-9);  // carried on at twice the speed
  steady += 1;
  EXPECT_NEAR(audio.now(), 10 + 2 * step, 1e-9);  // for one step at most
  movie->forwardAudioDecodeTime(44100);
  EXPECT_NEAR(audio.now(), 11, 1e-6);  // the audio moved: the clock is it again
  audio.setRunning(false);
  steady += 1;
  EXPECT_NEAR(audio.now(), 11, 1e-6);

  VNPlaybackClock wall(movie, false, [&] { return steady; });
  wall.setRate(0.5);
  wall.setRunning(true);
  steady += 2;
  EXPECT_NEAR(wall.now(), 1, 1e-9);
  wall.setRunning(false);
  steady += 2;
  EXPECT_NEAR(wall.now(), 1, 1e-9);
  wall.seek(5);
  EXPECT_NEAR(wall.now(), 5, 1e-9);
}

}  // namespace
