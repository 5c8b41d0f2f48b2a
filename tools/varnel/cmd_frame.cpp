// varnel frame INPUT -t SECONDS -o OUT.png|.jpg [--size WxH] [picture settings]:
// the composed picture at that time, at the output size.
//
// The movie seeks to the time and decodes the picture that covers it (the
// frame shown at that moment), composes it with the picture settings and
// renders it once.
#include <memory>
#include <optional>
#include <string>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "subtitles.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct FrameOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  double time = 0;
  std::string output;
  std::string size;
  PictureOptions picture;
  SubtitleOptions subtitles;
};

int run(const FrameOptions& o) {
  if (!isPictureName(o.output))
    return usage("bad -o", o.output, "the picture is written as .png, .jpg or .jpeg");
  int width = 0, height = 0;
  if (!o.size.empty() && !parsePictureSize(o.size, &width, &height))
    return usage("bad --size", o.size, "expected WxH with positive numbers");
  if (const std::string why = unwritableOutput(o.output, o.input); !why.empty())
    return fail("cannot write", o.output, why);
  Input input;
  input.title = o.title;
  Input::Extent extent;
  if (const int status = openForPictures(input, o.input, &extent); status != kExitOk)
    return status;
  if (const int status = checkTime("-t", o.time, extent, numberText(o.time), o.input);
      status != kExitOk)
    return status;
  if (const int status = o.picture.apply(input); status != kExitOk)
    return status;
  if (const int status = o.subtitles.apply(input); status != kExitOk)
    return status;
  VNFFMovie& movie = *input.movie;
  movie.setOutputVideoSize(o.size.empty() ? movie.shownVideoSize(movie.rotate(), false, false)
                                          : vn::Size{double(width), double(height)});

  // Exporting: reading is not held back to a playback clock.
  movie.setExportMovie(true);
  const int64_t at = microseconds(o.time);
  movie.seek(at);
  movie.flushOperation();
  std::optional<vn::FilterImage> picture;
  auto provider = std::make_shared<VNFFMovieImageProvider>();
  provider->movieMediaEffectImage = [&picture](VNFFMovie&, std::optional<vn::FilterImage> image) {
    picture = std::move(image);
  };
  movie.decodeImageAtTime(at, provider);
  if (!picture)
    return fail("cannot read", o.input, "no picture could be decoded at that time");
  return writePicture(*picture, o.output);
}

}  // namespace

Registration frameCommand() {
  return [](CLI::App& app, std::function<int()>& run_) {
    auto o = std::make_shared<FrameOptions>();
    CLI::App* sub = app.add_subcommand(
        "frame", "Write the picture of INPUT at a time, with the picture settings applied");
    sub->add_option("INPUT", o->input, "Input media file or DVD (folder, .iso, device)")
        ->required();
    addTitleOption(sub, &o->title);
    sub->add_option("-t,--time", o->time, "Time in seconds")->required();
    sub->add_option("-o,--output", o->output, "Output picture (.png, .jpg)")->required();
    sub->add_option("--size", o->size,
                    "Output size WxH (default: the input's, turned as it is shown)");
    o->picture.addTo(sub);
    o->subtitles.addTo(sub);
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
