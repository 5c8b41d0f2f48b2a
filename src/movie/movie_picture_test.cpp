// Pictures out of a movie: settings, thumbnails, providers, the picture queue, the playback clock.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <future>
#include <thread>
#include <tuple>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "core/serial_queue.h"
#include "effects/effect_video_stream.h"
#include "media/media_test_support.h"
#include "movie/movie.h"
#include "movie/picture_queue.h"
#include "movie/playback_clock.h"

namespace {

constexpr int64_t kFrame = 40000;  // microseconds, at 25 frames a second

std::shared_ptr<VNFFMovie> movieOf(const std::string& name, bool exporting = false) {
  auto movie = VNFFMovie::create();
  movie->openMedias(vn::test::mediasOf(name));
  movie->setExportMovie(exporting);
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

// What a provider received.
struct Received {
  int formatCalls = 0, plainCalls = 0, effectCalls = 0;
  std::optional<vn::FilterImage> plain, effect;
  VNFFVideoFormat format;
};

}  // namespace

TEST(MoviePictureTest, SettingsReachTheVideoEffectStream) {
  auto movie = movieOf("h264_aac.mp4");
  VNFFEffectVideoStream& stream = movie->videoEffectStream();
  // Opening attached the first video media, an output of its size, no crop.
  EXPECT_EQ(stream.media(), movie->videos().front());
  EXPECT_EQ(std::pair(movie->outputVideoSize().width, movie->cropRect().height),
            std::pair(320., 240.));
  // Sizes are kept as whole pixels, a hair above being rounded up.
  for (double width : {719.95, 720.5}) {
    movie->setOutputVideoSize({width, 480.0});
    EXPECT_EQ(std::tuple(stream.outputFormat().width, stream.outputFormat().height,
                         stream.outputFormat().pix_fmt),
              std::tuple(720, 480, AV_PIX_FMT_RGBA));
  }
  // Only the subtitle settings and the size draw the subtitle anew, once.
  const int64_t before = stream.subtitleUpdateCount();
  movie->setHue(0.2f);
  movie->setZoomType(1);
  movie->setSubtitleColor(vn::FilterImage::Color{1, 1, 0, 1});
  EXPECT_EQ(stream.subtitleUpdateCount(), before + 1);
  // A movie without video: no media, an empty output and crop, no thumbnail.
  auto audio = movieOf("aac.m4a");
  EXPECT_FALSE(audio->videoEffectStream().media());
  EXPECT_EQ(std::pair(audio->outputVideoSize().width, audio->cropRect().width), std::pair(0., 0.));
  EXPECT_FALSE(audio->thumbnailAtTime(1'000'000, {160, 120}));
}

TEST(MoviePictureTest, ThumbnailsFitTheBoxAndPlaybackStaysWhereItWas) {
  auto movie = movieOf("h264_aac.mp4");
  movie->seek(7'000'000);
  movie->flushOperation();
  auto size = [&](vn::Size output, vn::Size box, int64_t t = 2'000'000) {
    movie->setOutputVideoSize(output);
    const std::optional<vn::BitmapImage> thumb = movie->thumbnailAtTime(t, box);
    return thumb ? std::pair(thumb->width(), thumb->height()) : std::pair(0, 0);
  };
  EXPECT_EQ(size({1920, 1080}, {160, 120}), std::pair(160, 90));         // the output's shape
  EXPECT_EQ(size({320, 240}, {160, 120}, 60'000'000), std::pair(0, 0));  // past the end
  // The video media was sought back to the clock: the next picture is at 7 s.
  const std::shared_ptr<VNFFMedia> video = movie->videos().front();
  int64_t pts = -1;
  movie->decodeQueue()
      .addOperation([&] {
        AVFrame* frame = video->videoFrameAtTime(7'000'000);
        pts = frame ? frame->best_effort_timestamp : -1;
      })
      ->wait();
  EXPECT_NEAR(pts, 7 * 12800, 512);  // the mp4's time base is 1/12800
}

// Thumbnails from decoded pictures: a plain picture's is scaled straight from the decoded one and
// looks as the composed one does; any setting that changes the picture takes the composed path.
TEST(MoviePictureTest, APlainPicturesThumbnailComesFromTheDecodedPicture) {
  auto composed = movieOf("h264_aac.mp4");
  auto decoded = movieOf("h264_aac.mp4");
  decoded->setThumbnailsFromDecodedPictures(true);
  const auto bytes = [](const std::optional<vn::BitmapImage>& image) {
    std::vector<uint8_t> out;
    for (int y = 0; image && y < image->height(); ++y)
      out.insert(out.end(), image->data() + size_t(y) * image->bytesPerRow(),
                 image->data() + size_t(y) * image->bytesPerRow() + size_t(image->width()) * 4);
    return out;
  };
  const vn::Size box{100, 100};  // 320x240 fits as 100x75
  const std::vector<uint8_t> fast = bytes(decoded->thumbnailAtTime(2'000'000, box));
  const std::vector<uint8_t> slow = bytes(composed->thumbnailAtTime(2'000'000, box));
  ASSERT_EQ(fast.size(), size_t(100) * 75 * 4);
  ASSERT_EQ(slow.size(), fast.size());
  EXPECT_NE(fast, slow);  // averaged in the video's gamma, not in linear light
  // Flat colour (most of the test card) comes out the same, within rounding: the same matrix and
  // range. Fine detail differs by the averaging.
  int same = 0;
  for (size_t i = 0; i < fast.size(); i += 4) {
    int most = 0;
    for (size_t k = i; k < i + 4; ++k)
      most = std::max(most, std::abs(int(fast[k]) - int(slow[k])));
    same += most <= 2;
  }
  EXPECT_GT(same, 100 * 75 * 7 / 10);
  // A mirrored picture is composed, whatever the choice.
  for (auto& movie : {composed, decoded})
    movie->setHflip(true);
  EXPECT_EQ(bytes(decoded->thumbnailAtTime(2'000'000, box)),
            bytes(composed->thumbnailAtTime(2'000'000, box)));
}

TEST(MoviePictureTest, AProviderGetsWhatItHandles) {
  auto movie = movieOf("h264_aac.mp4");
  movie->setOutputVideoSize({640, 360});
  auto run = [&](bool format, bool giveBuffer, bool plain, bool effect, int64_t t = 3'000'000) {
    auto received = std::make_shared<Received>();
    auto provider = std::make_shared<VNFFMovieImageProvider>();
    if (format) {
      provider->movieFormatSize = [received, giveBuffer](VNFFMovie&, VNFFVideoFormat f,
                                                         int32_t size) {
        ++received->formatCalls;
        received->format = f;
        return giveBuffer ? std::make_shared<std::vector<uint8_t>>(size_t(size)) : nullptr;
      };
    }
    if (plain) {
      provider->movieMediaImage = [received](VNFFMovie&, std::optional<vn::FilterImage> i) {
        ++received->plainCalls;
        received->plain = std::move(i);
      };
    }
    if (effect) {
      provider->movieMediaEffectImage = [received](VNFFMovie&, std::optional<vn::FilterImage> i) {
        ++received->effectCalls;
        received->effect = std::move(i);
      };
    }
    movie->decodeImageAtTime(t, provider);
    return received;
  };
  auto onlyEffect = run(false, false, false, true);
  EXPECT_EQ(std::pair(onlyEffect->effectCalls, onlyEffect->plainCalls), std::pair(1, 0));
  EXPECT_EQ(onlyEffect->effect ? onlyEffect->effect->extent().width : 0, 640);
  auto all = run(true, true, true, true);
  ASSERT_TRUE(all->plain && all->effect);
  EXPECT_EQ(std::tuple(all->formatCalls, all->format.width, all->plain->extent().width),
            std::tuple(1, 320, 320.0));  // not scaled
  // A refused buffer, or no frame past the end: each callback once, with nothing.
  for (auto got : {run(true, false, true, true), run(false, false, true, true, 60'000'000)}) {
    EXPECT_EQ(std::pair(got->plainCalls, got->effectCalls), std::pair(1, 1));
    EXPECT_FALSE(got->plain || got->effect);
  }
  // From the decode queue the work runs inline, at once.
  bool ranInline = false;
  movie->decodeQueue()
      .addOperation([&] {
        auto provider = std::make_shared<VNFFMovieImageProvider>();
        provider->movieMediaImage = [&](VNFFMovie&, std::optional<vn::FilterImage> i) {
          ranInline = i.has_value();
        };
        movie->decodeImageAtTime(1'000'000, provider, false);
      })
      ->wait();
  EXPECT_TRUE(ranInline);
}

// Pictures asked for while another thread seeks and changes settings (for TSan).
TEST(MoviePictureTest, ThreadPicturesWhileSeeking) {
  auto movie = movieOf("h264_aac.mp4", true);  // reading is not held back to the seeks' clock
  std::atomic<bool> done{false};
  std::thread seeker([&] {
    for (int i = 0; !done.load(); ++i) {
      movie->seek((int64_t{i} * 1'300'000) % 9'000'000);
      movie->setRotate(float(i % 360));
      movie->setHflip(i % 2 == 0);
      movie->setEffectName(i % 3 ? "Blur" : "1970");
      movie->setOutputVideoSize({double(160 + i % 4 * 32), 120});
      // A bounded number of seeks in flight.
      if (i % 4 == 3)
        movie->flushOperation();
    }
  });
  std::atomic<int> pictures{0};
  auto provider = std::make_shared<VNFFMovieImageProvider>();
  provider->movieMediaEffectImage = [&](VNFFMovie&, std::optional<vn::FilterImage> image) {
    if (image && !image->render().empty())
      ++pictures;
  };
  int thumbnails = 0;
  for (int i = 0; i < 12; ++i) {
    movie->decodeImageAtTime(i * 700'000, provider, false);
    if (movie->thumbnailAtTime(i * 800'000, {96, 96}))
      ++thumbnails;
  }
  movie->flushOperation();
  done = true;
  seeker.join();
  // Nothing races; a picture may come out empty when a seek lands between reads.
  EXPECT_GE(thumbnails, 10);
  EXPECT_GE(pictures.load(), 10);
}

TEST(PictureQueueTest, DeliversInOrderAtTheSizeAskedWithinItsDepth) {
  using Q = VNFFPictureQueue;
  auto movie = movieOf("counter.mp4", true);  // 320x240
  movie->setOutputVideoSize({160, 120});      // composed pictures only
  struct Case {
    Q::Source source;
    Q::Delivery delivery;
    int renderW, renderH;  // kRGBA: asked; 0: the picture's own
    int wantW, wantH;
  } cases[] = {
      {Q::kComposed, Q::kImage, 0, 0, 160, 120}, {Q::kDecoded, Q::kImage, 0, 0, 320, 240},
      {Q::kComposed, Q::kRGBA, 0, 0, 160, 120},  {Q::kComposed, Q::kRGBA, 64, 36, 64, 36},
      {Q::kDecoded, Q::kRGBA, 0, 0, 320, 240},   {Q::kDecoded, Q::kRGBA, 640, 480, 640, 480},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.source << "/" << c.delivery << " " << c.renderW);
    Q queue(movie, 2, c.source, c.delivery);
    queue.setRenderSize(c.renderW, c.renderH);
    Gate gate(*movie);
    EXPECT_TRUE(queue.request(7, 7 * kFrame + kFrame / 2) &&
                queue.request(8, 8 * kFrame + kFrame / 2));
    EXPECT_FALSE(queue.request(9, 9 * kFrame));  // two asked ahead at most
    EXPECT_EQ(queue.pending(), 2u);
    EXPECT_TRUE(queue.takeUntil(8).empty());  // nothing is ready behind the gate
    gate.release();
    for (int64_t key : {7, 8}) {
      std::optional<Q::Picture> p = queue.take();
      ASSERT_TRUE(p);
      EXPECT_EQ(std::pair(p->key, p->image.has_value()), std::pair(key, c.delivery == Q::kImage));
      // An image is still drawable here, off the decode queue.
      const std::vector<uint8_t> rgba = p->image ? p->image->render() : p->rgba;
      const vn::Rect extent = p->image ? p->image->extent() : vn::Rect{};
      EXPECT_EQ(std::tuple(p->image ? int(extent.width) : p->width,
                           p->image ? int(extent.height) : p->height, rgba.size()),
                std::tuple(c.wantW, c.wantH, size_t(c.wantW) * c.wantH * 4));
    }
    EXPECT_FALSE(queue.take());  // nothing asked: no wait
    EXPECT_TRUE(queue.idle());
  }
}

TEST(PictureQueueTest, CancelDropsWhatIsAskedAndReadyAndTheEndGivesNone) {
  auto movie = movieOf("counter.mp4", true);
  VNFFPictureQueue queue(movie, 4, VNFFPictureQueue::kComposed, VNFFPictureQueue::kRGBA);
  ASSERT_TRUE(queue.request(1, kFrame + kFrame / 2));
  movie->flushOperation();  // picture 1 is ready
  Gate gate(*movie);
  ASSERT_TRUE(queue.request(2, 2 * kFrame + kFrame / 2));
  queue.cancel();
  EXPECT_TRUE(queue.takeUntil(2).empty());
  EXPECT_FALSE(queue.take());
  // A stale request counts until it has run: seeks never flood the queue.
  EXPECT_TRUE(queue.request(100, 100 * kFrame + kFrame / 2));
  EXPECT_EQ(queue.inFlight(), 2u);
  EXPECT_TRUE(queue.request(10000, 10000 * kFrame));  // past the end
  gate.release();
  for (auto [key, empty] : {std::pair{100, false}, std::pair{10000, true}}) {
    std::optional<VNFFPictureQueue::Picture> p = queue.take();
    ASSERT_TRUE(p);
    EXPECT_EQ(std::pair(int(p->key), p->empty()), std::pair(key, empty));
  }
  EXPECT_EQ(queue.missing(), 10000);
  EXPECT_FALSE(queue.take());
  EXPECT_GT(queue.latency(), 0);
}

TEST(PictureQueueTest, DestructionWaitsForTheRequestsMade) {
  auto movie = movieOf("counter.mp4", true);
  std::weak_ptr<VNFFMovie> alive = movie;
  {
    VNFFPictureQueue queue(movie, 2, VNFFPictureQueue::kComposed, VNFFPictureQueue::kImage);
    Gate gate(*movie);
    queue.request(0, kFrame / 2);
    queue.request(1, kFrame + kFrame / 2);
    movie.reset();
    gate.release();
  }
  // Every request ran and let go of the movie, which went with the queue, here.
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
    auto movie = movieOf(c.name, true);
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
  EXPECT_NEAR(audio.now(), 11, 1e-6);  // stopped
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
