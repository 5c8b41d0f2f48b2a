// Pictures out of a movie: settings, thumbnails, and pictures for a provider.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "core/serial_queue.h"
#include "effects/effect_video_stream.h"
#include "media/media_test_support.h"
#include "movie/movie.h"

namespace {

std::shared_ptr<VNFFMovie> movieOf(const std::string& name) {
  auto movie = VNFFMovie::create();
  movie->openMedias(vn::test::mediasOf(name));
  return movie;
}

// What a provider received.
struct Received {
  int formatCalls = 0;
  int plainCalls = 0;
  int effectCalls = 0;
  std::optional<vn::FilterImage> plain;
  std::optional<vn::FilterImage> effect;
  VNFFVideoFormat format;
};

}  // namespace

TEST(MoviePictureTest, SettingsReachTheVideoEffectStream) {
  auto movie = movieOf("h264_aac.mp4");
  VNFFEffectVideoStream& stream = movie->videoEffectStream();
  // Opening attached the first video media, an RGBA output of its size and
  // no crop.
  EXPECT_EQ(stream.media(), movie->videos().front());
  EXPECT_EQ(stream.outputFormat().pix_fmt, AV_PIX_FMT_RGBA);
  EXPECT_EQ(movie->outputVideoSize().width, 320);
  EXPECT_EQ(movie->cropRect().height, 240);

  // Sizes are kept as whole pixels, a hair above being rounded up.
  movie->setOutputVideoSize({719.95, 480.0});
  EXPECT_EQ(stream.outputFormat().width, 720);
  EXPECT_EQ(stream.outputFormat().height, 480);
  movie->setOutputVideoSize({720.5, 480.0});
  EXPECT_EQ(stream.outputFormat().width, 720);
  EXPECT_EQ(stream.outputFormat().pix_fmt, AV_PIX_FMT_RGBA);

  // Only the subtitle settings and the size draw the subtitle anew, once.
  const int64_t before = stream.subtitleUpdateCount();
  movie->setSubtitleColor(vn::FilterImage::Color{1, 1, 0, 1});
  EXPECT_EQ(stream.subtitleUpdateCount(), before + 1);
  movie->setHue(0.2f);
  movie->setZoomType(1);
  EXPECT_EQ(stream.subtitleUpdateCount(), before + 1);
  EXPECT_EQ(stream.hue(), 0.2f);

  // A movie without video: no media, an empty output and crop.
  auto audio = movieOf("aac.m4a");
  EXPECT_FALSE(audio->videoEffectStream().media());
  EXPECT_EQ(audio->videoEffectStream().outputFormat().pix_fmt, AV_PIX_FMT_RGBA);
  EXPECT_EQ(audio->outputVideoSize().width, 0);
  EXPECT_EQ(audio->cropRect().width, 0);
  EXPECT_FALSE(audio->thumbnailAtTime(1'000'000, {160, 120}));
}

TEST(MoviePictureTest, ThumbnailsFitTheBoxAndPlaybackStaysWhereItWas) {
  auto movie = movieOf("h264_aac.mp4");
  movie->seek(7'000'000);
  movie->flushOperation();
  struct Case {
    vn::Size output, box;
    int width, height;
  };
  const Case cases[] = {
      {{320, 240}, {160, 120}, 160, 120},
      {{1920, 1080}, {160, 120}, 160, 90},
      {{320, 240}, {100, 1000}, 100, 75},
  };
  for (const Case& c : cases) {
    movie->setOutputVideoSize(c.output);
    const std::optional<vn::BitmapImage> thumb = movie->thumbnailAtTime(2'000'000, c.box);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->width(), c.width);
    EXPECT_EQ(thumb->height(), c.height);
  }
  // No video covers a time past the end.
  EXPECT_FALSE(movie->thumbnailAtTime(60'000'000, {160, 120}));
  // The video media was sought back to the clock: the next picture read is
  // at 7 s, not right after the thumbnail's 2 s.
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
  EXPECT_EQ(onlyEffect->effectCalls, 1);
  EXPECT_EQ(onlyEffect->plainCalls, 0);
  ASSERT_TRUE(onlyEffect->effect);
  EXPECT_EQ(onlyEffect->effect->extent().width, 640);

  auto all = run(true, true, true, true);
  EXPECT_EQ(all->formatCalls, 1);
  EXPECT_EQ(all->format.width, 320);  // the media's size: pictures are not scaled
  ASSERT_TRUE(all->plain && all->effect);
  EXPECT_EQ(all->plain->extent().width, 320);

  auto refused = run(true, false, true, true);
  EXPECT_EQ(refused->plainCalls, 1);
  EXPECT_FALSE(refused->plain);
  EXPECT_FALSE(refused->effect);

  // Past the end there is no frame: the provider receives none.
  auto past = run(false, false, true, true, 60'000'000);
  EXPECT_EQ(past->effectCalls, 1);
  EXPECT_FALSE(past->plain);
  EXPECT_FALSE(past->effect);

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

// Pictures and thumbnails asked for while another thread seeks and changes
// the settings (run under ThreadSanitizer).
TEST(MoviePictureTest, ThreadPicturesWhileSeeking) {
  auto movie = movieOf("h264_aac.mp4");
  // Reading is not held back to the clock the seeks set.
  movie->setExportMovie(true);
  std::atomic<bool> done{false};
  std::thread seeker([&] {
    for (int i = 0; !done.load(); ++i) {
      movie->seek((int64_t{i} * 1'300'000) % 9'000'000);
      movie->setRotate(float(i % 360));
      movie->setHflip(i % 2 == 0);
      movie->setEffectName(i % 3 ? "Blur" : "1970");
      movie->setOutputVideoSize({double(160 + i % 4 * 32), 120});
      // A bounded number of seeks in flight: the queue must not grow
      // without end while a picture is decoded.
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
  // What is asked for here is that nothing races; a picture may still come
  // out empty when a seek lands between its reads.
  EXPECT_GE(thumbnails, 10);
  EXPECT_GE(pictures.load(), 10);
}
