// What the movie's threads may and may not do to one another: the audio
// device's calls, and a mix read that would meet a picture request.
#include <gtest/gtest.h>

#include <future>

#include "audio_out/output_audio_graph.h"
#include "core/check.h"
#include "media/media_source.h"
#include "movie/movie.h"
#include "test_support.h"

namespace {

constexpr uint64_t kChunkFrames = 2048;  // what one top-up mixes

// A movie over aac.m4a, sought to its start, its queue idle.
std::shared_ptr<VNFFMovie> openMovie() {
  auto medias = VNMediaSource::mediaWithPath(vn::test::fixture("aac.m4a"))->createMedias();
  EXPECT_TRUE(medias);
  auto movie = VNFFMovie::create();
  movie->openMedias(medias ? *medias : VNFFMovie::Medias{});
  movie->seek(0);
  movie->flushOperation();
  return movie;
}

// Holds the movie's decode queue until the promise is kept.
void holdQueue(VNFFMovie& movie, std::promise<void>& release) {
  movie.decodeQueue().addOperation([gate = release.get_future().share()] { gate.wait(); });
}

// The device's pulls, made while the queue is busy, allocate nothing, hold
// no reference to the movie and ask for one top-up between them; the next
// pull after it ran asks again.
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

// Reading the mix while a picture request waits on the queue (both would
// read the medias) is refused in a checking build; once it ran, the read
// goes on.
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

}  // namespace
