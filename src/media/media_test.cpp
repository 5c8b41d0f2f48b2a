#include "media/media.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "media/media_test_support.h"
#include "media/subtitle_source.h"

namespace {

using vn::test::fixture;
using vn::test::openWhole;

// A file source that calls itself a DVD, so tracks are keyed by stream id.
class DvdKeyedSource : public VNMediaSource {
 public:
  static std::shared_ptr<DvdKeyedSource> create(const std::string& path) {
    std::shared_ptr<DvdKeyedSource> source(new DvdKeyedSource());
    source->setFullpath(path);
    return source;
  }
  bool isDVD() override { return true; }
};

std::vector<int> indices(const VNFFMedia::Streams& streams) {
  std::vector<int> found;
  for (const auto& s : streams)
    found.push_back(s->stream()->index);
  return found;
}

}  // namespace

TEST(MediaSourceTest, MissingFilesClassesAndCopies) {
  std::shared_ptr<VNMediaSource> missing = VNMediaSource::mediaWithPath(fixture("no-such.mp4"));
  missing->open();
  EXPECT_EQ(std::pair(missing->isOpen(), missing->lastError()),
            std::pair(false, std::string("No such file or directory")));
  EXPECT_FALSE(missing->createMedias());
  const std::string path = fixture("subs.srt");
  // mediaWithPath always makes the plain source, whatever class names it.
  EXPECT_FALSE(VNSubtitleSource::mediaWithPath(path)->isSubtitle());
  std::shared_ptr<VNSubtitleSource> subtitles = VNSubtitleSource::create(path);
  EXPECT_TRUE(subtitles->isSubtitle() && subtitles->name() == "subs");
  subtitles->open();
  ASSERT_TRUE(subtitles->isOpen());
  std::shared_ptr<VNMediaSource> copy = subtitles->copy();
  EXPECT_TRUE(copy->isSubtitle() && copy->path() == path);
  EXPECT_FALSE(copy->isOpen()) << "a copy has its own, unopened demuxer";
}

TEST(MediaSourceTest, FilesSplitIntoAVideoAndAnAudioMedia) {
  const struct {
    const char* name;
    std::vector<std::vector<int>> medias;  // enabled streams of each media
  } cases[] = {
      {"aac.m4a", {{0}}},
      {"h264_aac.mp4", {{0}, {1}}},
      {"multitrack.mkv", {{0}, {1, 2, 3}}},  // subtitles 4 and 5 in neither
      {"dvdsub.mpg", {{1}, {2}}},            // navigation data and subpictures in neither
      {"mp3_cover.mp3", {{0}}},              // the cover is never a video track
      {"subs.srt", {}},
      {"empty.mp4", {}},
      {"text.mp4", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::shared_ptr<VNMediaSource> source = VNMediaSource::mediaWithPath(fixture(c.name));
    std::optional<VNMediaSource::Medias> medias = source->createMedias();
    if (c.medias.empty()) {
      EXPECT_FALSE(medias);
      continue;
    }
    ASSERT_TRUE(medias);
    ASSERT_EQ(medias->size(), c.medias.size());
    for (size_t i = 0; i < c.medias.size(); ++i) {
      VNFFMedia& media = *(*medias)[i];
      std::vector<int> enabled;
      for (const auto& s : media.streams()) {
        if (s->enable())
          enabled.push_back(s->stream()->index);
      }
      EXPECT_EQ(enabled, c.medias[i]);
      EXPECT_EQ(media.selectStreams(), VNIndexSet(c.medias[i].begin(), c.medias[i].end()));
      EXPECT_FALSE(media.hasSubtitle());
    }
    EXPECT_EQ((*medias)[0]->source(), source) << "the first media reads the given source";
    EXPECT_TRUE(medias->size() < 2 || ((*medias)[1]->formatContext() != source->formatContext() &&
                                       (*medias)[1]->isOpen()))
        << "the second has a demuxer of its own";
    // Where the header lists every stream, the second takes the first's
    // probe and reads little more than its header, not the whole file.
    if (medias->size() == 2 && !(source->formatContext()->ctx_flags & AVFMTCTX_NOHEADER)) {
      EXPECT_LT((*medias)[1]->formatContext()->pb->bytes_read,
                std::filesystem::file_size(fixture(c.name)) / 4);
    }
  }
}

TEST(MediaTest, TrackSelectionsUseOrdinalsOrDvdStreamIds) {
  std::shared_ptr<VNFFMedia> media = openWhole("multitrack.mkv");
  EXPECT_EQ(std::pair(indices(media->audios()), indices(media->subtitles())),
            std::pair(std::vector{1, 2, 3}, std::vector{4, 5}));
  EXPECT_EQ(media->audioNames(), (std::vector<std::string>{"English", "French", "German"}));
  EXPECT_EQ(media->subtitleNames(), (std::vector<std::string>{"English", "French"}));
  media->setSelectAudios(VNIndexSet{1});
  media->setSelectSubtitles(VNIndexSet{0});
  media->updateSelectStreams();
  EXPECT_EQ(std::tuple(indices(media->audios()), media->audioStream()->stream()->index,
                       indices(media->subtitles())),
            std::tuple(std::vector{2}, 2, std::vector{4}));
  // Deselected tracks keep their decoders and still count in the names.
  EXPECT_TRUE(media->streams()[1]->isOpen() && media->audioNames().size() == 3);
  media->setSelectAudios(VNIndexSet{});
  media->updateSelectStreams();
  EXPECT_TRUE(!media->hasAudio() && !media->audioStream());
}

TEST(MediaTest, DvdTracksAreKeyedByStreamId) {
  // Two audio tracks whose transport stream ids end in 5 and 3.
  const std::string path = vn::test::scratchDir() + "/two_tracks.ts";
  int status = -1;
  vn::test::runShell(
      "ffmpeg -hide_banner -loglevel error -nostdin -y "
      "-f lavfi -i sine=duration=1 -f lavfi -i sine=duration=1 -map 0 -map 1 "
      "-c:a mp2 -streamid 0:0x105 -streamid 1:0x103 -f mpegts '" +
          path + "'",
      &status);
  ASSERT_EQ(status, 0);
  // Keys are ordinals among the audio tracks, on a DVD stream ids & 15.
  const std::tuple<bool, uint32_t, std::vector<int>> cases[] = {
      {false, 1, {1}}, {false, 5, {}}, {true, 1, {}}, {true, 5, {0}}, {true, 3, {1}}};
  for (const auto& [dvd, key, selected] : cases) {
    std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
    media->setSource(dvd ? DvdKeyedSource::create(path) : VNMediaSource::mediaWithPath(path));
    media->setSelectAudios(VNIndexSet{key});
    media->open();
    ASSERT_EQ(media->streams().size(), 2u);
    EXPECT_EQ(indices(media->audios()), selected) << dvd << " " << key;
  }
}

TEST(MediaTest, SelectStreamsOpensAndClosesDecodersAndTheMovieHidesVideo) {
  std::shared_ptr<VNFFMedia> media = openWhole("h264_aac.mp4");
  ASSERT_TRUE(media->hasVideo() && media->hasAudio());
  media->setSelectStreams(VNIndexSet{1});
  media->updateSelectStreams();
  EXPECT_FALSE(media->streams()[0]->isOpen() || media->hasVideo());
  EXPECT_EQ(
      std::tuple(media->streams()[0]->codecName(), media->videoFormat().width, media->framerate()),
      std::tuple("", 0, 0.0f));
  media->setSelectStreams(std::nullopt);
  media->updateSelectStreams();
  EXPECT_TRUE(media->streams()[0]->isOpen());
  EXPECT_EQ(media->streams()[0]->codecName(), "h264");
  // The movie's disableVideo hides the video, while the stream stays.
  auto movie = std::make_shared<vn::test::FakeMovie>();
  media->setMovie(movie);
  EXPECT_TRUE(media->hasVideo());
  movie->noVideo = true;
  EXPECT_TRUE(!media->hasVideo() && media->videoStream());
  movie.reset();
  EXPECT_TRUE(!media->movie() && media->hasVideo());
  std::shared_ptr<VNFFMedia> none = VNFFMedia::create();  // no source
  none->open();
  EXPECT_FALSE(none->isOpen());
}

TEST(MediaTest, CopiesShareSelectionsButNotTheDemuxer) {
  std::shared_ptr<VNFFMedia> media = openWhole("multitrack.mkv");
  media->setMovie_position(1500000);
  media->setSelectAudios(VNIndexSet{2});
  media->setSubtitleCharset("WINDOWS-1252");
  media->setLast_pts(77);
  std::shared_ptr<VNFFMedia> copy = media->copy();
  EXPECT_EQ(std::tuple(copy->movie_position(), copy->selectAudios(), copy->subtitleCharset()),
            std::tuple(1500000, media->selectAudios(), "WINDOWS-1252"));
  EXPECT_EQ(copy->selectStreams(), std::nullopt);
  EXPECT_TRUE(copy->streams().empty() && !copy->isOpen());
  EXPECT_NE(copy->last_pts(), 77);
  copy->open();
  EXPECT_EQ(indices(copy->audios()), std::vector{3});
  EXPECT_NE(copy->formatContext(), media->formatContext());
}

TEST(MediaTest, StreamsFoundLateAreAddedWhileReading) {
  // Audio 21 s in, past the 5 MB the probe reads of 3 Mbit/s video.
  const std::string path = vn::test::scratchDir() + "/late_audio.mpg";
  int status = -1;
  vn::test::runShell(
      "ffmpeg -hide_banner -loglevel error -nostdin -y "
      "-f lavfi -i testsrc2=size=320x240:rate=25:duration=24 "
      "-itsoffset 21 -f lavfi -i sine=sample_rate=44100:duration=1 "
      "-c:v mpeg2video -b:v 3M -minrate 3M -maxrate 3M -bufsize 1M -c:a mp2 -f "
      "mpeg '" +
          path + "'",
      &status);
  ASSERT_EQ(status, 0);
  std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
  media->setSource(VNMediaSource::mediaWithPath(path));
  media->open();
  ASSERT_EQ(media->streams().size(), 1u);
  EXPECT_EQ(media->mediaStreamForStreamIndex(1), nullptr);
  bool sawAudio = false;
  vn::test::readPackets(
      *media, [&](VNFFMediaStream& stream, AVPacket*) { sawAudio = sawAudio || stream.isAudio(); });
  EXPECT_TRUE(sawAudio);
  std::shared_ptr<VNFFMediaStream> audio = media->mediaStreamForStreamIndex(1);
  ASSERT_NE(audio, nullptr);
  EXPECT_TRUE(audio->isAudio() && audio->isOpen() && audio->enable() &&
              media->streams().size() == 2);
}
