// The generated discs: model, byte reader, pieces on the timeline, broken discs.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "core/log.h"
#include "dvd/dvd.h"
#include "dvd/dvd_source.h"
#include "media/media.h"
#include "test_support.h"

namespace {

using vn::test::fixture;
namespace fs = std::filesystem;

constexpr int kBlock = 2048;

struct Opened {  // a disc and the lines it logged while opening
  std::shared_ptr<VNDVD> disc;
  std::vector<std::string> log;
};

Opened openLogged(const std::string& path) {
  Opened opened;
  vn_set_log_handler([&](const std::string& line) { opened.log.push_back(line); });
  opened.disc = VNDVD::open(path);
  vn_set_log_handler(nullptr);
  return opened;
}

std::shared_ptr<VNDVDSource> titleSource(const std::shared_ptr<VNDVD>& disc, size_t set, size_t t) {
  const auto& s = disc->title_sets.at(set);
  return VNDVDSource::create(disc, s, s->titles.at(t));
}

// Everything the byte reader gives from `from` to the end.
std::vector<uint8_t> readAll(VNDVDSource& source, int64_t from) {
  std::vector<uint8_t> bytes;
  EXPECT_EQ(VNDVDSource::seekPacket(&source, from, SEEK_SET), from);
  std::vector<uint8_t> buffer(1 << 20);
  for (int calls = 0; calls < 100000; ++calls) {
    const int got =
        VNDVDSource::readPacket(&source, buffer.data(), static_cast<int>(buffer.size()));
    if (got == AVERROR_EOF)
      break;
    EXPECT_GT(got, 0);
    bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + got);
  }
  return bytes;
}

// A scratch copy of the folder disc.
std::string folderCopy(const std::string& name) {
  const std::string copy = vn::test::scratchDir() + "/" + name;
  fs::remove_all(copy);
  fs::copy(fixture("dvd_folder"), copy, fs::copy_options::recursive);
  return copy;
}

// One model from the image, the folder, and a folder without VIDEO_TS.IFO.
TEST(DvdDiscTest, ImageAndFolderGiveTheSameModel) {
  const std::string noManager = folderCopy("no-manager-ifo");
  fs::remove(noManager + "/VIDEO_TS/VIDEO_TS.IFO");
  for (const std::string& path : {fixture("dvd.iso"), fixture("dvd_folder"), noManager}) {
    SCOPED_TRACE(path);
    const Opened opened = openLogged(path);
    ASSERT_TRUE(opened.disc);
    const VNDVD& disc = *opened.disc;
    EXPECT_EQ(opened.log, std::vector<std::string>{"title_sets 2 Region 0xff"});
    EXPECT_EQ(disc.region, 0);
    ASSERT_EQ(disc.title_sets.size(), 2u);
    const VNDVDTitleSet& ntsc = *disc.title_sets[0];
    EXPECT_EQ(ntsc.description(),
              "format:ntsc aspect_ratio:4:3 audios:(English, French) "
              "subtitle:(English)");
    const VNDVDTitleSet& pal = *disc.title_sets[1];
    EXPECT_EQ(pal.description(),
              "format:pal aspect_ratio:16:9 audios:(German, Spanish) subtitle:()");
    ASSERT_EQ(pal.titles.size(), 1u);
    // Titles of one, two and ten VOBs; the chain without cells is no title.
    std::vector<std::pair<int32_t, size_t>> titles;  // number, pieces
    for (size_t t = 0; t < ntsc.titles.size(); ++t)
      titles.emplace_back(ntsc.titles[t]->title,
                          titleSource(opened.disc, 0, t)->dvdMediaSources().size());
    EXPECT_EQ(titles, (std::vector<std::pair<int32_t, size_t>>{{0, 1}, {1, 2}, {2, 10}}));
    // Every VOB lies inside a title, one after another.
    int32_t next = 0;
    for (const auto& vob : ntsc.medias) {
      EXPECT_TRUE(vob->start_sector == next && vob->sector_count > 0) << vob->description();
      next = vob->start_sector + vob->sector_count;
    }
    // Titles 1 and 2 whole, title 3 piece by piece, the PAL title whole.
    EXPECT_EQ(opened.disc->titleSources().size(), 13u);
  }
}

TEST(DvdDiscTest, VolumeNameIsTheDiscsOrItsFolders) {
  // The image's UDF name, else the folder's, or its parent's for VIDEO_TS.
  const std::string renamed = vn::test::scratchDir() + "/Movie Night";
  fs::remove_all(renamed);
  fs::create_directories(renamed);
  fs::create_directory_symlink(fs::absolute(fixture("dvd_folder/VIDEO_TS")), renamed + "/video_ts");
  const std::pair<std::string, std::string> cases[] = {
      // path, volume
      {fixture("dvd.iso"), "VARNEL_DVD"},          {fixture("dvd_folder"), "dvd_folder"},
      {fixture("dvd_folder") + "/", "dvd_folder"}, {fixture("dvd_folder/VIDEO_TS"), "dvd_folder"},
      {renamed + "/video_ts", "Movie Night"},
  };
  for (const auto& [path, volume] : cases) {
    std::shared_ptr<VNDVD> disc = VNDVD::open(path);
    EXPECT_EQ(disc ? disc->volume : "(none)", volume) << path;
  }
}

TEST(DvdDiscTest, ChainsWithoutCellsAreNoTitlesButKeepTheirNumber) {
  std::shared_ptr<VNDVD> disc = VNDVD::open(fixture("dvd_nocells"));
  ASSERT_TRUE(disc);
  ASSERT_EQ(disc->title_sets.size(), 1u);
  const auto& titles = disc->title_sets[0]->titles;
  ASSERT_EQ(titles.size(), 2u);
  EXPECT_EQ(std::pair(titles[0]->title, titles[1]->title), std::pair(0, 2));
  const auto sources = disc->titleSources();
  EXPECT_EQ(sources.size() == 2 ? sources[1]->name() : "", "dvd_nocells_1_3");
  // The disc states how long each chain plays.
  EXPECT_NEAR(titles[0]->playback_time, 2500000, 100000);
}

TEST(DvdDiscTest, ByteReaderServesWholeBlocksAndTheRestOfOne) {
  std::shared_ptr<VNDVD> disc = VNDVD::open(fixture("dvd_folder"));
  ASSERT_TRUE(disc);
  std::shared_ptr<VNDVDSource> source = titleSource(disc, 0, 1);  // two VOBs
  ASSERT_TRUE(source->avio_context());
  const int64_t size = source->filesize();
  EXPECT_EQ(size, int64_t{source->sector_count()} * kBlock);
  // Asking the size leaves the position; unknown modes are refused.
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 1000, SEEK_SET), 1000);
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 0, AVSEEK_SIZE), size);
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 0, 3), AVERROR(ENOSYS));
  EXPECT_EQ(source->read_offset(), 1000);
  // Unaligned: the rest of block 0 only; then whole blocks.
  std::vector<uint8_t> buffer(1048576);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), buffer.data(), 1048576), 1048);
  EXPECT_EQ(source->read_offset(), 2048);
  const int whole = VNDVDSource::readPacket(source.get(), buffer.data(), 1048576);
  EXPECT_EQ(whole, size - 2048);  // the title is smaller than the request
  // A short request gives what was asked; a remainder past whole blocks waits.
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 3 * kBlock, SEEK_SET), 3 * kBlock);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), buffer.data(), 100), 100);
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 3 * kBlock, SEEK_SET), 3 * kBlock);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), buffer.data(), 2 * kBlock + 100), 2 * kBlock);
  // From the end and past it: nothing.
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 0, SEEK_END), size);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), buffer.data(), 1048576), AVERROR_EOF);
  EXPECT_EQ(VNDVDSource::seekPacket(source.get(), 4096, SEEK_CUR), size + 4096);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), buffer.data(), 1048576), AVERROR_EOF);
  // What it reads is the title's run of the title set's VOB file.
  std::ifstream vob(fixture("dvd_folder/VIDEO_TS/VTS_01_1.VOB"), std::ios::binary);
  std::vector<uint8_t> file((std::istreambuf_iterator<char>(vob)),
                            std::istreambuf_iterator<char>());
  const size_t from = static_cast<size_t>(source->start_sector()) * kBlock;
  ASSERT_GE(file.size(), from + static_cast<size_t>(size));
  const std::vector<uint8_t> read = readAll(*source, 1000);
  ASSERT_EQ(read.size(), static_cast<size_t>(size - 1000));
  EXPECT_TRUE(std::equal(read.begin(), read.end(), file.begin() + static_cast<long>(from) + 1000));
}

TEST(DvdDiscTest, SourcesOfOneImageReadAtOnce) {
  // All titles of an image read at once through the one file the disc opened.
  std::shared_ptr<VNDVD> disc = VNDVD::open(fixture("dvd.iso"));
  ASSERT_TRUE(disc);
  const auto sources = disc->titleSources();
  std::vector<std::vector<uint8_t>> alone, together(sources.size());
  for (const auto& source : sources) {
    auto copy = std::static_pointer_cast<VNDVDSource>(source->copy());
    copy->avio_context();
    alone.push_back(readAll(*copy, 0));
  }
  std::vector<std::thread> threads;
  for (size_t i = 0; i < sources.size(); ++i) {
    threads.emplace_back([&, i] {
      sources[i]->avio_context();
      together[i] = readAll(*sources[i], 0);
    });
  }
  for (auto& t : threads)
    t.join();
  for (size_t i = 0; i < sources.size(); ++i) {
    EXPECT_EQ(alone[i].size(), static_cast<size_t>(sources[i]->filesize()));
    EXPECT_TRUE(together[i] == alone[i]) << "source " << i;
  }
}

TEST(DvdDiscTest, PiecesFollowEachOtherOnTheTimeline) {
  std::shared_ptr<VNDVD> disc = VNDVD::open(fixture("dvd.iso"));
  ASSERT_TRUE(disc);
  for (const size_t title : {1u, 2u}) {
    SCOPED_TRACE("title " + std::to_string(title + 1));
    std::shared_ptr<VNDVDSource> source = titleSource(disc, 0, title);
    const VNMediaSource::Medias medias = source->createMedias().value_or(VNMediaSource::Medias{});
    ASSERT_EQ(medias.size(), source->dvdMediaSources().size());
    int64_t expected = 0;
    for (const auto& media : medias) {
      EXPECT_EQ(media->movie_position(), expected);
      EXPECT_TRUE(media->hasVideo() && media->hasAudio() && media->duration() > 400000);
      EXPECT_EQ(media->audioNames(), (std::vector<std::string>{"English", "French"}));
      EXPECT_EQ(media->source()->name(), source->name());
      expected = static_cast<int64_t>(static_cast<double>(media->duration()) +
                                      static_cast<double>(expected) - 0.2 * 1000000);
    }
  }
  // A piece alone is one media at 0.
  auto piece = titleSource(disc, 0, 2)->dvdMediaSources().at(3);
  const auto medias = piece->createMedias().value_or(VNMediaSource::Medias{});
  ASSERT_EQ(medias.size(), 1u);
  EXPECT_EQ(medias[0]->movie_position(), 0);
}

TEST(DvdDiscTest, BrokenDiscsEndInNothingToRead) {
  // Not a disc: libdvdread opens it as an image and finds no video manager.
  for (const std::string& path : {fixture("text.mp4"), fixture("h264_aac.mp4")}) {
    std::shared_ptr<VNDVD> disc = VNDVD::open(path);
    EXPECT_TRUE(!disc || disc->title_sets.empty()) << path;
  }
  EXPECT_FALSE(VNDVD::open(fixture("no-such-disc.iso")));
  // The IFOs without their VOBs: titles whose pieces hold nothing.
  std::shared_ptr<VNDVD> bare = VNDVD::open(fixture("dvd_novobs"));
  ASSERT_TRUE(bare && bare->title_sets.size() == 2);
  for (const auto& source : bare->titleSources()) {
    EXPECT_TRUE(source->createMedias().value_or(VNMediaSource::Medias{}).empty());
    EXPECT_EQ(VNDVDSource::readPacket(source.get(), nullptr, 2048), AVERROR_EOF);
  }
  // Cut inside set 1's VOBs: what lies before the cut reads, what lies after
  // does not, and set 2, whose IFO was after the cut, is left out.
  const Opened opened = openLogged(fixture("dvd_truncated.iso"));
  std::shared_ptr<VNDVD> cut = opened.disc;
  ASSERT_TRUE(cut && cut->title_sets.size() == 1);
  EXPECT_EQ(opened.log,
            (std::vector<std::string>{"title_sets 2 Region 0xff",
                                      "title_set 2: its IFO cannot be read; left out"}));
  size_t readable = 0, empty = 0;
  for (const auto& source : cut->titleSources()) {
    const auto medias = source->createMedias().value_or(VNMediaSource::Medias{});
    (medias.empty() ? empty : readable) += 1;
    for (const auto& media : medias)
      EXPECT_GE(media->duration(), 0);
  }
  EXPECT_TRUE(readable > 0 && empty > 0);
}

TEST(DvdDiscTest, TitleSetWithBrokenTablesIsLeftOut) {
  // Big-endian values written into one title set's IFO of a copy of the
  // folder disc: chain table at sector 2, entries from its byte 8, set 1's
  // first chain at its byte 32, cell address table at sector 4.
  constexpr int kChains = 2 * kBlock;
  constexpr int kFirstChain = kChains + 32;
  constexpr int kCells = 4 * kBlock;
  using Patch = std::tuple<int, uint32_t, int>;  // offset, value, bytes
  const struct {
    const char* what;
    int set;
    std::vector<Patch> patches;
  } cases[] = {
      {"program chain table past the file", 2, {{0xCC, 0x100000, 4}}},
      {"more entries than the table holds", 2, {{kChains, 0xFFFF, 2}}},
      {"a chain past the table's end", 2, {{kChains + 8 + 4, 0x10000, 4}}},
      {"a chain's cells past the file", 1, {{kFirstChain + 0xE8, 0xFFF0, 2}}},
      {"a chain's commands past the file", 1, {{kFirstChain + 0xE4, 0xFF00, 2}}},
      // The third entry shares the first chain, which cannot be read whole.
      {"a shared chain that cannot be read",
       1,
       {{kChains + 8 + 2 * 8 + 4, 32, 4}, {kFirstChain + 0xE8, 0xFFF0, 2}}},
      {"cell address table ending past the file", 2, {{kCells + 4, 0xFFFFFFF0, 4}}},
      {"cell address table past the file", 2, {{0xE0, 0x7FFFFFFF, 4}}},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string copy = folderCopy("broken-tables-" + std::to_string(++n));
    char name[32];
    std::snprintf(name, sizeof name, "/VIDEO_TS/VTS_%02d_0.IFO", c.set);
    {
      std::fstream ifo(copy + name, std::ios::in | std::ios::out | std::ios::binary);
      for (const auto& [offset, value, bytes] : c.patches) {
        ifo.seekp(offset);
        for (int i = bytes - 1; i >= 0; --i)
          ifo.put(static_cast<char>(value >> (8 * i)));
      }
      ASSERT_TRUE(ifo.good());
    }
    const Opened opened = openLogged(copy);
    ASSERT_TRUE(opened.disc && opened.disc->title_sets.size() == 1);
    EXPECT_EQ(opened.disc->title_sets[0]->title_set, 3 - c.set);
    EXPECT_EQ(opened.log, (std::vector<std::string>{"title_sets 2 Region 0xff",
                                                    "title_set " + std::to_string(c.set) +
                                                        ": its program chains or cell addresses "
                                                        "cannot be read; left out"}));
    fs::remove_all(copy);
  }
}

}  // namespace
