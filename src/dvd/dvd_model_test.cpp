// The disc model built by hand: VOB runs, titles, pieces and title sources.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

extern "C" {
#include <libavutil/error.h>
}

#include "dvd/dvd.h"
#include "dvd/dvd_ifo.h"
#include "dvd/dvd_source.h"

namespace {

struct Span {
  int32_t start;
  int32_t count;
};

std::optional<Span> runOf(const std::shared_ptr<VNDVDMedia>& media) {
  if (!media)
    return std::nullopt;
  return Span{media->start_sector, media->sector_count};
}

bool operator==(const Span& a, const Span& b) {
  return a.start == b.start && a.count == b.count;
}

TEST(DvdModelTest, SubMediaIsTheOverlapOfTwoRuns) {
  const VNDVDMedia media(100, 100);  // sectors 100..199
  const std::tuple<int32_t, int32_t, std::optional<Span>> cases[] = {
      {150, 100, Span{150, 50}}, {200, 10, std::nullopt},  {50, 60, Span{100, 10}},
      {0, 100, std::nullopt},    {120, 10, Span{120, 10}}, {0, 1000, Span{100, 100}},
      {199, 1, Span{199, 1}},    {100, 0, std::nullopt},
  };
  for (const auto& [start, count, expected] : cases)
    EXPECT_EQ(runOf(media.subMediaAt(start, count)), expected) << start << "+" << count;
}

TEST(DvdModelTest, VobRunsComeFromTheCellAddressTable) {
  // VOB 1: two cells apart, VOB 2 none, VOB 3 one; VOBs 0 and 4 are not counted.
  std::vector<cell_adr_t> cells = {
      {1, 1, 0, 500, 599}, {1, 2, 0, 100, 199}, {3, 1, 0, 700, 749},
      {0, 1, 0, 10, 20},   {4, 1, 0, 900, 999},
  };
  c_adt_t table{};
  table.nr_of_vobs = 3;
  table.last_byte = static_cast<uint32_t>(7 + 12 * cells.size());
  table.cell_adr_table = cells.data();
  VNDVDTitleSet set;
  vn::dvd::addMedias(set, table);
  ASSERT_EQ(set.medias.size(), 3u);
  // VOB 1 from its lowest cell, the sum of both.
  EXPECT_EQ((std::vector{*runOf(set.medias[0]), *runOf(set.medias[1]), *runOf(set.medias[2])}),
            (std::vector<Span>{{100, 200}, {0x7FFFFFFF, 0}, {700, 50}}));
  EXPECT_TRUE(set.mediaForVob(2) == set.medias[2] && !set.mediaForVob(3));
  // A VOB without cells never overlaps a title.
  EXPECT_EQ(set.medias[1]->subMediaAt(0, 0x7FFFFFFF), nullptr);
  // A table too short to hold one entry gives VOBs without cells.
  table.last_byte = 7 + 11;
  VNDVDTitleSet empty;
  vn::dvd::addMedias(empty, table);
  ASSERT_EQ(empty.medias.size(), 3u);
  EXPECT_EQ(*runOf(empty.medias[0]), (Span{0x7FFFFFFF, 0}));
  // Backward cells or cells to the last sector count nothing; overlaps are capped.
  std::vector<cell_adr_t> broken = {
      {1, 1, 0, 500, 499},        {1, 2, 0, 10, 0x7FFFFFFF},  {1, 3, 0, 10, 19},
      {2, 1, 0, 100, 0x7FFFFFFE}, {2, 2, 0, 100, 0x7FFFFFFE},
  };
  table.nr_of_vobs = 2;
  table.last_byte = static_cast<uint32_t>(7 + 12 * broken.size());
  table.cell_adr_table = broken.data();
  VNDVDTitleSet bad;
  vn::dvd::addMedias(bad, table);
  ASSERT_EQ(bad.medias.size(), 2u);
  EXPECT_EQ((std::vector{*runOf(bad.medias[0]), *runOf(bad.medias[1])}),
            (std::vector<Span>{{10, 10}, {100, 0x7FFFFFFF - 100}}));
}

cell_playback_t cell(uint32_t first, uint32_t last) {
  cell_playback_t c{};
  c.first_sector = first;
  c.last_sector = last;
  return c;
}

pgc_t chain(cell_playback_t* cells, int count) {
  pgc_t p{};
  p.nr_of_cells = static_cast<uint8_t>(count);
  p.cell_playback = cells;
  return p;
}

TEST(DvdModelTest, TitlesAreTheProgramChainsWithCells) {
  // Cells running backwards or up to the last sector make no title; nor do commands only.
  cell_playback_t first[] = {cell(40, 99), cell(100, 239)}, only[] = {cell(300, 300)};
  cell_playback_t backwards[] = {cell(500, 0), cell(0, 499)}, tooFar[] = {cell(10, 0x7FFFFFFF)};
  pgc_t withCells = chain(first, 2), withoutCells = chain(nullptr, 0), last = chain(only, 1);
  pgc_t broken = chain(backwards, 2), reaching = chain(tooFar, 1);
  withCells.playback_time = {0x01, 0x32, 0x05, 0xC0 | 0x15};  // 1:32:05 and 15 frames at 29.97
  for (uint32_t i = 0; i < 16; ++i)
    withCells.palette[i] = 0x00108080 + i;
  std::vector<pgci_srp_t> entries(6);
  pgc_t* chains[] = {&withCells, &withoutCells, nullptr, &last, &broken, &reaching};
  for (size_t i = 0; i < entries.size(); ++i)
    entries[i].pgc = chains[i];
  pgcit_t table{};
  table.nr_of_pgci_srp = 6;
  table.pgci_srp = entries.data();
  VNDVDTitleSet set;
  vn::dvd::addTitles(set, table);
  ASSERT_EQ(set.titles.size(), 2u);
  EXPECT_EQ(set.titles[0]->description(), "title:0 start:40 count:200");
  EXPECT_EQ(set.titles[0]->filesize(), 200 * 2048);
  EXPECT_EQ(std::pair(set.titles[0]->playback_time, set.titles[1]->playback_time),
            std::pair(int64_t{5525000000 + 500500}, int64_t{0}));
  EXPECT_EQ(std::pair(set.titles[0]->palette[0], set.titles[0]->palette[15]),
            std::pair(0x00108080u, 0x0010808Fu));
  EXPECT_EQ(set.titles[1]->description(), "title:3 start:300 count:1");  // numbers keep the gaps
}

// One title set of `vobs` VOBs of 100 sectors, its title over the first `covered`.
std::shared_ptr<VNDVD> modelDisc(int vobs, int covered, int titleSet = 1) {
  std::shared_ptr<VNDVD> disc = VNDVD::create();
  disc->volume = "MOVIE";
  auto set = std::make_shared<VNDVDTitleSet>();
  set->title_set = titleSet;
  for (int i = 0; i < vobs; ++i)
    set->medias.push_back(std::make_shared<VNDVDMedia>(100 * i, 100));
  auto title = std::make_shared<VNDVDTitle>();
  title->start_sector = 0;
  title->sector_count = 100 * covered;
  set->titles.push_back(title);
  disc->title_sets.push_back(set);
  return disc;
}

TEST(DvdModelTest, TitlesOfTenPiecesOrMoreAreOfferedPieceByPiece) {
  const struct {
    int vobs, covered;
    size_t sources;
  } cases[] = {{12, 9, 1}, {12, 10, 10}, {12, 12, 12}, {1, 1, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.covered) + " pieces");
    const auto sources = modelDisc(c.vobs, c.covered)->titleSources();
    ASSERT_EQ(sources.size(), c.sources);
    if (c.sources > 1) {
      for (size_t i = 0; i < sources.size(); ++i)
        EXPECT_TRUE(sources[i]->media() && sources[i]->start_sector() == int32_t(100 * i) &&
                    sources[i]->filesize() == 100 * 2048)
            << i;
    } else {
      EXPECT_FALSE(sources[0]->media());
      EXPECT_EQ(sources[0]->filesize(), int64_t{100} * c.covered * 2048);
    }
  }
}

TEST(DvdModelTest, PiecesAreClippedToTheTitleAndShareItsName) {
  std::shared_ptr<VNDVD> disc = modelDisc(4, 4, 2);
  VNDVDTitleSet& set = *disc->title_sets[0];
  set.titles[0]->start_sector = 150;  // from the middle of VOB 2
  set.titles[0]->sector_count = 200;  // to the middle of VOB 4
  auto source = VNDVDSource::create(disc, disc->title_sets[0], set.titles[0]);
  EXPECT_EQ(source->name(), "MOVIE_2_1");
  const auto pieces = source->dvdMediaSources();
  ASSERT_EQ(pieces.size(), 3u);
  const Span expected[] = {{150, 50}, {200, 100}, {300, 50}};
  for (size_t i = 0; i < pieces.size(); ++i) {
    EXPECT_EQ(*runOf(pieces[i]->media()), expected[i]);
    EXPECT_TRUE(pieces[i]->name() == "MOVIE_2_1" && pieces[i]->title() == set.titles[0]);
  }
  // A copy reads the same run from the start.
  auto copy = std::static_pointer_cast<VNDVDSource>(pieces[1]->copy());
  EXPECT_TRUE(copy->media() == pieces[1]->media() && copy->read_offset() == 0);
  // A disc without a reader gives sources whose reads find nothing.
  uint8_t block[2048];
  EXPECT_EQ(source->readBlock(0, 1, block), 0);
  EXPECT_EQ(VNDVDSource::readPacket(source.get(), block, sizeof block), AVERROR_EOF);
  EXPECT_TRUE(source->createMedias().value_or(VNMediaSource::Medias{1}).empty());
}

}  // namespace
