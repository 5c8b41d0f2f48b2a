#include "movie/movie.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "audio_out/output_audio_graph.h"
#include "core/check.h"
#include "core/serial_queue.h"
#include "media/media_test_support.h"

namespace {

using Medias = std::vector<std::shared_ptr<VNFFMedia>>;
using vn::test::mediasOf;

constexpr uint64_t kChunkFrames = 2048;  // what one top-up mixes

// A media that counts the seeks it performs.
class CountingMedia : public VNFFMedia {
 public:
  void seek(int64_t time) override {
    seeks.push_back(time);
    VNFFMedia::seek(time);
  }
  std::vector<int64_t> seeks;
};

std::shared_ptr<CountingMedia> countingMedia(const std::string& name) {
  auto media = std::make_shared<CountingMedia>();
  media->setSource(VNMediaSource::mediaWithPath(vn::test::fixture(name)));
  return media;
}

// A movie over aac.m4a, sought to its start, its queue idle.
std::shared_ptr<VNFFMovie> openMovie() {
  auto movie = VNFFMovie::create();
  movie->openMedias(mediasOf("aac.m4a"));
  movie->seek(0);
  movie->flushOperation();
  return movie;
}

// Holds the movie's decode queue until the promise is kept.
void holdQueue(VNFFMovie& movie, std::promise<void>& release) {
  movie.decodeQueue().addOperation([gate = release.get_future().share()] { gate.wait(); });
}

}  // namespace

TEST(MovieTest, MediasOnTheTimeline) {
  auto empty = VNFFMovie::create();
  EXPECT_EQ(VNFFMovie::medias(empty->medias(), 0), nullptr);
  empty->seek(2000000);
  empty->flushOperation();
  EXPECT_EQ(empty->currentTime(), 2000000);
  auto movie = VNFFMovie::create();
  Medias a = mediasOf("aac.m4a");       // 5 s
  Medias b = mediasOf("h264_aac.mp4");  // 10 s: video + audio
  ASSERT_EQ(a.size(), 1u);
  ASSERT_EQ(b.size(), 2u);
  a[0]->setMovie_position(10000000);
  for (auto& m : b)
    m->setMovie_position(12000000);
  Medias all = {a[0], b[0], b[1]};
  movie->openMedias(all);
  ASSERT_NEAR(a[0]->duration(), 5000000, 50000);
  EXPECT_EQ(movie->duration(), 12000000 + b[0]->duration());
  EXPECT_TRUE(movie->hasAudio() && movie->hasVideo());
  EXPECT_EQ(std::pair(movie->audios().size(), movie->videos().size()), std::pair(2ul, 1ul));
  const int64_t endA = 10000000 + a[0]->duration();
  // In the overlap the earlier wins.
  EXPECT_EQ((Medias{VNFFMovie::medias(all, 9999999), VNFFMovie::medias(all, 10000000),
                    VNFFMovie::medias(all, endA - 1), VNFFMovie::medias(all, endA),
                    movie->videoMediaAtTime(11000000), movie->videoMediaAtTime(13000000)}),
            (Medias{nullptr, a[0], a[0], b[0], nullptr, b[0]}));
  movie->setDisableVideo(true);
  EXPECT_TRUE(!movie->hasVideo() && movie->videos().empty());
  movie->close();
  EXPECT_TRUE(movie->medias().empty() && !movie->hasAudio());
}

TEST(MovieTest, SelectionGoesToEveryMediaAndIsReadFromTheFirst) {
  auto movie = VNFFMovie::create();
  Medias medias = mediasOf("multitrack.mkv");
  ASSERT_EQ(medias.size(), 2u);
  movie->openMedias(medias);
  movie->setSelectAudioStreams(VNIndexSet{1});
  EXPECT_EQ(medias[1]->selectAudios(), VNIndexSet{1});
  ASSERT_EQ(medias[1]->audios().size(), 1u);
  EXPECT_EQ(medias[1]->audios()[0]->language(), "French");
  movie->setSelectAudioStreams(std::nullopt);
  EXPECT_EQ(medias[1]->audios().size(), 3u);
}

// Of a burst of seeks only the newest does any work (a time before a media's start included).
TEST(MovieSeekTest, EveryMediaIsSoughtToItsLocalTime) {
  auto movie = VNFFMovie::create();
  auto first = countingMedia("aac.m4a");
  auto second = countingMedia("aac.m4a");
  second->setMovie_position(4000000);
  movie->openMedias({first, second});
  movie->flushOperation();
  std::promise<void> release;
  holdQueue(*movie, release);
  first->seeks.clear();
  second->seeks.clear();
  for (int64_t t : {1000000, 2000000, 3000000})
    movie->seek(t);
  EXPECT_EQ(movie->currentTime(), 3000000);
  release.set_value();
  movie->flushOperation();
  EXPECT_EQ(first->seeks, std::vector<int64_t>{3000000});
  EXPECT_EQ(second->seeks, std::vector<int64_t>{-1000000});
}

// The clock is the seek point plus the frames produced, less those waiting.
TEST(MovieSeekTest, ClockSubtractsBufferedFrames) {
  auto movie = VNFFMovie::create();
  movie->openMedias(mediasOf("aac.m4a"));
  movie->seek(5000000);
  movie->flushOperation();
  EXPECT_EQ(movie->currentTime(), 5000000);
  auto graph = movie->audioOutputGraph();
  ASSERT_TRUE(graph);
  std::vector<float> frames(4410 * 2);
  graph->writeSample(frames.data(), 4410);
  movie->forwardAudioDecodeTime(44100);
  EXPECT_EQ(movie->currentTime(), 5000000 + 900000);
}

// Seeks while the queue mixes: chunks queued before the last may count after it.
TEST(MovieSeekTest, SeeksWhileTheQueueMixes) {
  auto movie = VNFFMovie::create();
  movie->openMedias(mediasOf("h264_aac.mp4"));
  for (int i = 0; i < 40; ++i) {
    movie->seek(static_cast<int64_t>(i % 9) * 1000000);
    movie->decodeQueue().addOperation([movie] { movie->decodeAudioToAudioOutput(); });
    (void)movie->currentTime();
  }
  movie->flushOperation();
  EXPECT_GE(movie->currentTime(), 3000000);
  EXPECT_LT(movie->currentTime(), 3000000 + 40 * 2048 * 1000000LL / 44100);
}

// Pulls while the queue is busy allocate nothing, hold no movie, ask for one top-up in all.
TEST(MovieThreadsTest, DevicePullsAskForOneTopUpWithoutAllocating) {
  const std::shared_ptr<VNFFMovie> movie = openMovie();
  const std::shared_ptr<VNOutputAudioGraph> graph = movie->audioOutputGraph();
  ASSERT_TRUE(graph);
  std::promise<void> release;
  holdQueue(*movie, release);
  float out[512 * 2];
  const uint64_t before = vn::test::allocationCount();
  for (int i = 0; i < 100; ++i)
    graph->readSample(out, 512);  // as the device thread does
  EXPECT_EQ(vn::test::allocationCount(), before);
  EXPECT_EQ(movie.use_count(), 1);
  release.set_value();
  movie->flushOperation();
  EXPECT_EQ(graph->bufferFrames(), kChunkFrames);
  graph->clearBuffer();
  graph->decodeMoreAudioDataToAudioOutput();
  movie->flushOperation();
  EXPECT_EQ(graph->bufferFrames(), kChunkFrames);
}

// Reading the mix while a picture request waits is refused in a checking build.
TEST(MovieThreadsDeathTest, ReadSampleMeetingAPictureRequestIsRefused) {
  if (!vn::checksAbort())
    GTEST_SKIP() << "a build without checks only logs the misuse";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::shared_ptr<VNFFMovie> movie = openMovie();
  movie->configOutputFormat(VNFFMovie::defaultOutputFormat());
  std::promise<void> release;
  holdQueue(*movie, release);
  movie->decodeImageAtTime(0, nullptr, false);
  float out[256 * 2];
  EXPECT_DEATH(movie->readSample(out, 256), "readSample while a picture request is queued");
  release.set_value();
  movie->flushOperation();
  EXPECT_TRUE(movie->readSample(out, 256));
}
