// varnel thumbnail INPUT [-t SECONDS|PERCENT%[,...]] [-s WxH] -o OUT.png|.jpg
//                  [--count N --sheet] [picture settings]
//
// A thumbnail is the picture that covers the time, composed with the picture
// settings and fitted into the box (aspect kept, no bars): a 16:9 picture in
// a 160x120 box is 160x90. The picture is shown as a player shows it: turned
// by the video's own rotation and stretched by its pixel aspect ratio.
//
// Several times (-t 3.3,9.1,25%) make one file each, numbered in OUT's %d,
// in one process. With --sheet, N thumbnails evenly spread over the movie are laid out in one
// grid (a storyboard), each with its time beneath it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "subtitles.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

using vn::FilterImage;
using vn::Rect;

// The default time: a tenth into the movie, past opening titles.
constexpr double kDefaultPercent = 10;
// The sheet: gaps between cells and a band for the time under each.
constexpr int kGap = 4;
constexpr int kLabelHeight = 18;
constexpr char kLabelFont[] = "Sans 11";
constexpr int kMaxCount = 400;

struct ThumbnailOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  std::string time;
  std::string size = "160x120";
  std::string output;
  std::optional<int> count;
  bool sheet = false;
  PictureOptions picture;
  SubtitleOptions subtitles;
};

// "12.5" seconds, or "10%" of the readable length (100% is the last
// picture); the reason when malformed.
std::string parseTime(const std::string& text, double end, double* seconds) {
  char sign = 0, rest = 0;
  double value = 0;
  const int n = std::sscanf(text.c_str(), "%lf%c%c", &value, &sign, &rest);
  if (n == 1) {
    *seconds = value;
    return {};
  }
  if (n != 2 || sign != '%')
    return "expected seconds from the start, or a percentage such as 25%";
  if (!(value >= 0 && value <= 100))
    return "a percentage is 0% to 100%";
  *seconds = value < 100 ? end * value / 100 : std::max(0.0, end - 0.001);
  return {};
}

// "3.3,9.1,25%" -> its parts; "" -> one empty part (the default time).
std::vector<std::string> splitTimes(const std::string& text) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
    parts.push_back(text.substr(start, comma - start));
  parts.push_back(text.substr(start));
  return parts;
}

// H:MM:SS, with as many decimals (up to 3) as it takes to tell apart times
// step seconds apart.
std::string clockText(double seconds, double step = 1) {
  const int decimals = step >= 1 ? 0 : step >= 0.1 ? 1 : step >= 0.01 ? 2 : 3;
  const double scale = std::pow(10, decimals);
  const long long units = std::llround(std::floor(seconds * scale));
  const long long whole = units / static_cast<long long>(scale);
  char text[48];
  int n = std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                        whole % 60);
  if (decimals > 0)
    std::snprintf(text + n, sizeof text - n, ".%0*lld", decimals,
                  units % static_cast<long long>(scale));
  return text;
}

// The thumbnail at time, or an error line.
std::optional<FilterImage> thumbnailAt(VNFFMovie& movie,
                                       double seconds,
                                       vn::Size box,
                                       const std::string& path) {
  const std::optional<vn::BitmapImage> thumb = movie.thumbnailAtTime(microseconds(seconds), box);
  std::optional<FilterImage> image = thumb ? FilterImage::fromBitmap(*thumb) : std::nullopt;
  if (!image)
    fail("cannot read", path, "no picture could be decoded at " + clockText(seconds, 0.001));
  return image;
}

// The grid of thumbnails: as square as it gets, cells of the box's size.
FilterImage sheetOf(const std::vector<std::pair<FilterImage, double>>& thumbs,
                    double step,
                    int w,
                    int h) {
  const int n = static_cast<int>(thumbs.size());
  const int columns = static_cast<int>(std::ceil(std::sqrt(double(n))));
  const int rows = (n + columns - 1) / columns;
  const int cellWidth = w + kGap, cellHeight = h + kLabelHeight + kGap;
  const double sheetWidth = columns * cellWidth + kGap;
  const double sheetHeight = rows * cellHeight + kGap;
  const Rect bounds{0, 0, sheetWidth, sheetHeight};
  FilterImage sheet = FilterImage::withColor({0.08, 0.08, 0.08, 1}).cropped(bounds);
  for (int i = 0; i < n; ++i) {
    const FilterImage& thumb = thumbs[i].first;
    const Rect e = thumb.extent();
    // Cells from the top left; picture space counts y from the bottom.
    const double left = kGap + (i % columns) * cellWidth;
    const double top = sheetHeight - kGap - (i / columns) * cellHeight;
    const double x = left + std::floor((w - e.width) / 2);
    const double y = top - h + std::floor((h - e.height) / 2);
    sheet = thumb.translated(x - e.x, y - e.y).sourceOver(sheet);
    const FilterImage label =
        vn::textImage(clockText(thumbs[i].second, step), kLabelFont, {1, 1, 1, 1});
    if (!label.isEmpty()) {
      const Rect l = label.extent();
      sheet =
          label
              .translated(left + std::floor((w - l.width) / 2) - l.x,
                          top - h - kLabelHeight + std::floor((kLabelHeight - l.height) / 2) - l.y)
              .sourceOver(sheet);
    }
  }
  return sheet.cropped(bounds);
}

int run(const ThumbnailOptions& o) {
  if (!isPictureName(o.output))
    return usage("bad -o", o.output, "the picture is written as .png, .jpg or .jpeg");
  int boxWidth = 0, boxHeight = 0;
  if (!parsePictureSize(o.size, &boxWidth, &boxHeight))
    return usage("bad -s", o.size, "expected WxH with positive numbers");
  if (o.count && (*o.count < 1 || *o.count > kMaxCount))
    return usage("bad --count", std::to_string(*o.count), "expected 1 to 400 thumbnails");
  if (o.count && *o.count > 1 && !o.sheet)
    return usage("bad --count", std::to_string(*o.count), "several thumbnails need --sheet");
  if (o.sheet && !o.time.empty())
    return usage("bad -t", o.time, "a sheet spreads its thumbnails over the whole movie");
  Input input;
  input.title = o.title;
  Input::Extent extent;
  if (const int status = openForPictures(input, o.input, &extent); status != kExitOk)
    return status;
  if (const int status = o.picture.apply(input); status != kExitOk)
    return status;
  if (const int status = o.subtitles.apply(input); status != kExitOk)
    return status;
  VNFFMovie& movie = *input.movie;
  movie.setOutputVideoSize(movie.shownVideoSize(movie.rotate(), true, false));
  movie.setExportMovie(true);
  const vn::Size box{double(boxWidth), double(boxHeight)};

  if (!o.sheet) {
    // Every time is checked before anything is written.
    std::vector<double> times;
    const std::vector<std::string> texts = splitTimes(o.time);
    for (const std::string& text : texts) {
      double seconds = extent.end() * kDefaultPercent / 100;
      if (text.empty() && texts.size() > 1)
        return usage("bad -t", o.time, "an empty time between commas");
      if (const std::string why = text.empty() ? "" : parseTime(text, extent.end(), &seconds);
          !why.empty())
        return usage("bad -t", text, why);
      if (const int status = checkTime("-t", seconds, extent, text, o.input); status != kExitOk)
        return status;
      times.push_back(seconds);
    }
    const bool numbered = o.output.find("%d") != std::string::npos;
    if (times.size() > 1 && !numbered)
      return usage("bad -o", o.output, "several times need %d in the name, e.g. thumb-%d.png");
    std::vector<std::string> names;
    for (size_t i = 0; i < times.size(); ++i) {
      std::string name = o.output;
      if (numbered)
        name.replace(name.find("%d"), 2, std::to_string(i + 1));
      if (const std::string why = unwritableOutput(name, o.input); !why.empty())
        return fail("cannot write", name, why);
      names.push_back(std::move(name));
    }
    std::vector<std::string> written;
    for (size_t i = 0; i < times.size(); ++i) {
      const std::optional<FilterImage> thumb = thumbnailAt(movie, times[i], box, o.input);
      const std::string& name = names[i];
      const int status = thumb ? writePicture(*thumb, name) : kExitFailed;
      if (status != kExitOk) {
        // All or nothing: the ones already written go too.
        for (const std::string& done : written)
          std::remove(done.c_str());
        return status;
      }
      written.push_back(name);
    }
    return kExitOk;
  }

  if (const std::string why = unwritableOutput(o.output, o.input); !why.empty())
    return fail("cannot write", o.output, why);
  const int count = o.count.value_or(9);
  std::vector<std::pair<FilterImage, double>> thumbs;
  for (int i = 0; i < count; ++i) {
    const double seconds = extent.end() * (i + 0.5) / count;
    const std::optional<FilterImage> thumb = thumbnailAt(movie, seconds, box, o.input);
    if (!thumb)
      return kExitFailed;
    thumbs.emplace_back(*thumb, seconds);
  }
  return writePicture(sheetOf(thumbs, extent.end() / count, boxWidth, boxHeight), o.output);
}

}  // namespace

Registration thumbnailCommand() {
  return [](CLI::App& app, std::function<int()>& run_) {
    auto o = std::make_shared<ThumbnailOptions>();
    CLI::App* sub = app.add_subcommand(
        "thumbnail", "Write a thumbnail of INPUT, or a sheet of thumbnails over its length");
    sub->add_option("INPUT", o->input, "Input media file or DVD (folder, .iso, device)")
        ->required();
    addTitleOption(sub, &o->title);
    sub->add_option("-t,--time", o->time,
                    "Seconds, or a percentage such as 25% (default 10%); several, comma-separated, "
                    "with %d in OUT");
    sub->add_option("-s,--size", o->size, "The box the thumbnail fits in, WxH (default 160x120)");
    sub->add_option("-o,--output", o->output, "Output picture (.png, .jpg)")->required();
    sub->add_option("--count", o->count, "With --sheet: how many thumbnails (default 9)");
    sub->add_flag("--sheet", o->sheet, "Lay thumbnails spread over the movie out in a grid");
    o->picture.addTo(sub);
    o->subtitles.addTo(sub);
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
