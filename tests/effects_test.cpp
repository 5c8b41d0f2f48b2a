// End-to-end: `varnel effects`: its list, a preset on a picture, the contact sheet.

#include <algorithm>
#include <cstdint>

#include "test_support.h"

namespace {

using nlohmann::json;
using vn::test::fixture;
using vn::test::noTemporaryFiles;
using vn::test::psnr;
using vn::test::Raster;
using vn::test::readPicture;
using vn::test::runShell;
using vn::test::runVarnel;
using vn::test::scratch;
using vn::test::shellQuote;

const std::vector<std::string> kPresets = {
    "1935",        "1955",         "1960",          "1970",       "Color Invert", "Exposure",
    "Blur",        "Sharpen",      "Vibrance",      "Big Softie", "SpotLight",    "Line Screen",
    "Black White", "Blackout B&W", "Color Control", "Monochrome", "Glow",         "Gloom",
    "Bloom",       "Pixellate",    "Bright",        "Copper",     "Classical",    "New Effection",
};

// The sheet's layout: five columns, a 24-pixel name band under each tile.
constexpr int kColumns = 5;
constexpr int kLabel = 24;

// A picture made by ffmpeg from a lavfi source graph, one frame.
std::string makePicture(const std::string& name, const std::string& graph) {
  const std::string path = scratch(name);
  int status = -1;
  runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i " + shellQuote(graph) +
               " -frames:v 1 " + shellQuote(path),
           &status);
  EXPECT_EQ(status, 0) << graph;
  return path;
}

// Mean and largest difference of the colour (or only the alpha) bytes of two pictures.
struct Difference {
  double mean = 0;
  int most = 0;
};
Difference difference(const Raster& a, const Raster& b, bool alpha = false) {
  Difference d;
  if (a.rgba.size() != b.rgba.size() || a.rgba.empty())
    return {255, 255};
  size_t n = 0;
  for (size_t i = 0; i < a.rgba.size(); ++i) {
    if ((i % 4 == 3) != alpha)
      continue;
    const int delta = std::abs(int(a.rgba[i]) - int(b.rgba[i]));
    d.mean += delta;
    d.most = std::max(d.most, delta);
    ++n;
  }
  d.mean /= double(n);
  return d;
}

}  // namespace

TEST(EffectsCommandTest, ListsEveryPresetInCatalogueOrderAsTextAndJson) {
  const vn::test::CommandResult text = runVarnel({"effects"});
  const vn::test::CommandResult list = runVarnel({"effects", "--json"});
  ASSERT_EQ(text.status, 0) << text.err;
  ASSERT_EQ(list.status, 0) << list.err;
  const json presets = json::parse(list.out, nullptr, false);
  const std::vector<std::string> lines = vn::test::lines(text.out);
  ASSERT_TRUE(presets.is_array()) << list.out;
  ASSERT_EQ(presets.size(), kPresets.size());
  ASSERT_EQ(lines.size(), kPresets.size()) << text.out;
  for (size_t i = 0; i < kPresets.size(); ++i) {
    SCOPED_TRACE(kPresets[i]);
    const json& preset = presets[i];
    const std::string& line = lines[i];
    EXPECT_EQ(preset["name"], kPresets[i]);
    // The text line: the name, then (in one column for all) the same filters.
    EXPECT_EQ(line.rfind(kPresets[i] + "  ", 0), 0u) << line;
    size_t from = line.find_first_not_of(' ', kPresets[i].size());
    EXPECT_EQ(from, lines[0].find_first_not_of(' ', kPresets[0].size())) << line;
    for (const json& filter : preset["filters"]) {
      from = line.find(filter["filter"].get<std::string>(), from);
      ASSERT_NE(from, std::string::npos) << line;
      ++from;
    }
  }
  // Settings come as the catalogue's numbers, not float noise.
  EXPECT_EQ(presets[0]["filters"][0]["parameters"]["inputBrightness"].dump(), "0.00949");
}

TEST(EffectsCommandTest, ApplyWritesThePictureWithThePresetAtItsOwnSize) {
  const std::string pattern = makePicture("pattern.png", "testsrc2=size=320x240");
  // Greys only: hue and saturation leave them as they are.
  const std::string greys =
      makePicture("greys.png", "nullsrc=size=96x64,geq=lum='X*255/95':cb=128:cr=128,format=rgb24");
  // Colour with a partly transparent alpha ramp.
  const std::string clear = makePicture(
      "clear.png",
      "testsrc2=size=96x64,format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='64+Y*2'");
  const struct Case {
    const char* preset;
    std::string input;
    const char* output;
    bool same;       // equal to the input within 1, else visibly different
    bool keepAlpha;  // a point operation keeps alpha exactly
  } cases[] = {
      {"Color Control", greys, "hue.png", true, true},
      {"Big Softie", greys, "softie.png", true, true},
      {"Color Invert", clear, "clear-inverted.png", false, true},
      {"Classical", clear, "clear-sepia.png", false, true},
      {"Blur", pattern, "blur.jpg", false, false},
      {"Pixellate", pattern, "pixellate.PNG", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.preset) + " on " + c.input + " -> " + c.output);
    const vn::test::CommandResult r =
        runVarnel({"effects", "--apply", c.preset, c.input, "-o", scratch(c.output)});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    const Raster in = readPicture(c.input), out = readPicture(scratch(c.output));
    ASSERT_EQ(std::pair(out.width, out.height), std::pair(in.width, in.height));
    const Difference colour = difference(in, out);
    EXPECT_TRUE(c.same ? colour.most <= 1 : colour.mean > 10) << colour.most << " " << colour.mean;
    EXPECT_TRUE(!c.keepAlpha || difference(in, out, true).most == 0);
  }
  EXPECT_TRUE(noTemporaryFiles());
}

TEST(EffectsCommandTest, SheetShowsThePictureAtTheTimeUnderEveryPreset) {
  const std::string movie = fixture("h264_aac.mp4");
  const std::string still = makePicture("still.png", "testsrc2=size=200x200");
  const struct Case {
    std::string input;
    const char* args;  // tiles are 320x180 by default
    const char* output;
    int tileWidth, tileHeight;
    bool warns = false;  // one warning line, for a file cut short
  } cases[] = {
      {movie, "-t 3.5", "sheet.png", 320, 180},
      // Past the end: the last picture, as at 9.99 s.
      {movie, "-t 999", "sheet-end.png", 320, 180},
      {movie, "-t 9.99", "sheet-last.png", 320, 180},
      {still, "-t 0 --tile 160x90", "sheet-still.jpg", 160, 90},
      // Tiles of the movie's own size: its pictures are not scaled.
      {movie, "-t 3.5 --tile 320x240", "sheet-full.png", 320, 240},
      // Past where a file cut short can be read: its last picture.
      {fixture("truncated_faststart.mp4"), "-t 8", "sheet-cut.png", 320, 180, true},
  };
  std::vector<Raster> sheets;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input + " " + c.args);
    const vn::test::CommandResult r = runVarnel(
        vn::test::words("effects --sheet " + c.input + " -o " + scratch(c.output) + " " + c.args));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.rfind("varnel: warning: ", 0) == 0, c.warns) << r.err;
    sheets.push_back(readPicture(scratch(c.output)));
    EXPECT_EQ(std::pair(sheets.back().width, sheets.back().height),
              std::pair(kColumns * c.tileWidth, 5 * (c.tileHeight + kLabel)));
  }
  EXPECT_EQ(difference(sheets[1], sheets[2]).most, 0);
  EXPECT_GT(difference(sheets[0], sheets[2]).mean, 1);

  // The 320x240 movie fits its tile as 240x180, 40 black columns either side.
  const Raster& sheet = sheets[0];
  std::vector<Raster> pictures, labels;
  for (size_t i = 0; i < kPresets.size() + 1; ++i) {
    const int x = int(i % kColumns) * 320, y = int(i / kColumns) * (180 + kLabel);
    pictures.push_back(sheet.part(x + 40, y, 240, 180));
    labels.push_back(sheet.part(x, y + 180, 320, kLabel));
    const Raster bars = sheet.part(x, y, 40, 180);
    EXPECT_EQ(*std::max_element(bars.rgba.begin(), bars.rgba.end()), 255) << "opaque";
    EXPECT_EQ(difference(bars, Raster{40, 180, std::vector<uint8_t>(bars.rgba.size(), 0)}).most, 0)
        << "black bars left of tile " << i;
  }
  // The first tile is the frame covering 3.5 s (87, from 3.48 s), in FFmpeg's colours.
  auto frame = [&](int n) {
    return readPicture(movie, "select=eq(n\\," + std::to_string(n) + ")");
  };
  const Raster original = sheets[4].part(0, 0, 320, 240);
  const double match = psnr(original, frame(87));
  EXPECT_TRUE(match > 40 && match > psnr(original, frame(86)) + 10 &&
              match > psnr(original, frame(88)) + 10)
      << match;

  // Every tile differs from every other; every name band holds a name of its own.
  for (size_t i = 0; i < pictures.size(); ++i) {
    const Raster& band = labels[i];
    EXPECT_GT(*std::max_element(band.rgba.begin(), band.rgba.end()), 200) << "no text in " << i;
    for (size_t j = i + 1; j < pictures.size(); ++j) {
      const std::string pair = (i == 0 ? "Original" : kPresets[i - 1]) + " / " + kPresets[j - 1];
      EXPECT_GT(difference(pictures[i], pictures[j]).mean, 2) << pair;
      EXPECT_GT(difference(labels[i], labels[j]).mean, 0.5) << pair;
    }
  }
}
