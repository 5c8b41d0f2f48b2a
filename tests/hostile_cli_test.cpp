// End-to-end: bad command lines and impossible work give one error line, exit 2 for bad usage and 1
// for failed work, leave the inputs as they were and write nothing; play refuses before it plays.
#include <filesystem>
#include <sstream>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;

constexpr int kTimeout = 30;
constexpr int kUsage = 2;
constexpr int kFailed = 1;

// {in} a movie, {pic} a picture, {iso} a text file named as a disc image (copies, which a run
// writing over them cannot spoil); {f} the fixtures' folder; {dir} the case's empty output folder.
struct Case {
  Case(std::string l, int s = kUsage, std::string w = "")
      : line(std::move(l)), status(s), says(std::move(w)) {}
  std::string line;  // the arguments, as words() splits them
  int status;
  std::string says;  // in the error line
};

struct Inputs {
  std::string in, pic, iso;
};

const Inputs& inputs() {
  static const Inputs all = [] {
    const std::string dir = vn::test::scratch("hostile-inputs");
    fs::create_directories(dir);
    Inputs i{dir + "/in.mp4", dir + "/pic.png", dir + "/not-a-disc.iso"};
    fs::copy_file(vn::test::fixture("h264_aac.mp4"), i.in, fs::copy_options::overwrite_existing);
    fs::copy_file(vn::test::fixture("text.mp4"), i.iso, fs::copy_options::overwrite_existing);
    vn::test::runShell("ffmpeg -hide_banner -loglevel error -nostdin -y -i " +
                       vn::test::shellQuote(i.in) + " -frames:v 1 " + vn::test::shellQuote(i.pic));
    return i;
  }();
  return all;
}

// What tells a file apart from a changed one: its bytes and its time.
std::pair<std::string, fs::file_time_type> stampOf(const std::string& path) {
  return {vn::test::readFile(path), fs::last_write_time(path)};
}

std::string substituted(std::string text, const std::string& dir) {
  const Inputs& i = inputs();
  const std::pair<std::string, std::string> keys[] = {{"{in}", i.in},
                                                      {"{pic}", i.pic},
                                                      {"{iso}", i.iso},
                                                      {"{f}", vn::test::fixture("")},
                                                      {"{dir}", dir}};
  for (const auto& [key, value] : keys) {
    for (size_t at; (at = text.find(key)) != std::string::npos;)
      text.replace(at, key.size(), value);
  }
  return text;
}

// The command line `base` with each of the ';'-separated options.
std::vector<Case> each(const std::string& base, const std::string& options, int status = kUsage) {
  std::vector<Case> cases;
  std::istringstream in(options);
  for (std::string o; std::getline(in, o, ';');)
    cases.push_back({base + " " + o, status});
  return cases;
}

void runTable(const std::string& name, const std::vector<std::vector<Case>>& parts) {
  const Inputs& i = inputs();
  ASSERT_TRUE(fs::exists(i.pic));
  const auto movie = stampOf(i.in), picture = stampOf(i.pic);
  // No window; a sound device writing into the output folder shows a play not refused.
  const std::string base = vn::test::scratch("hostile-" + name);
  int n = 0;
  for (const std::vector<Case>& cases : parts) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.line);
      const std::string dir = base + "/" + std::to_string(++n);
      fs::create_directories(dir);
      const vn::test::CommandResult r =
          vn::test::runVarnel(vn::test::words(substituted(c.line, dir)),
                              {{"SDL_AUDIODRIVER", "disk"},
                               {"SDL_DISKAUDIOFILE", dir + "/played.raw"},
                               {"DISPLAY", ""},
                               {"WAYLAND_DISPLAY", ""}},
                              kTimeout);
      vn::test::expectError(r, c.status, substituted(c.says, dir));
      EXPECT_TRUE(fs::is_empty(dir)) << "written in " << dir;
      EXPECT_TRUE(stampOf(i.in) == movie) << "the movie was changed";
      EXPECT_TRUE(stampOf(i.pic) == picture) << "the picture was changed";
      ASSERT_TRUE(fs::is_character_file("/dev/full")) << "/dev/full was replaced";
    }
  }
}

TEST(HostileCliTest, Convert) {
  runTable(
      "convert",
      {// The picture settings are shared with frame, which meets the rest of them.
       each("convert {in} {dir}/o.mp4",
            "--size 10; --size 321x240; --fps 30abc; --fps 100000; --audio-tracks 9; "
            "--vcodec nosuch; --acodec h264; --start nan; --start 50; --duration nan; "
            "--vbitrate -5; --channels 0; --saturation 2; --rotate nan; --nosuch"),
       // An output that cannot be written, or a codec its container does not take.
       each("convert {in}",
            "{dir}/missing/o.mp4; /dev/full; {in}; {dir}; {dir}/o; {dir}/o.xyz; "
            "{dir}/o.mp4 --acodec wma2",
            kFailed),
       {
           {"convert {in}", kUsage},
           {"convert {f}truncated.mp4 {dir}/o.mp4", kFailed, "truncated.mp4"},
           {"convert {f}missing.mp4 {dir}/o.mp4", kFailed, "missing.mp4"},
           {"convert {iso} {dir}/o.mp4", kFailed, "not a DVD-Video disc"},
           {"convert {in} {dir}/o.mp4 --title 1", kFailed, "not a DVD-Video disc"},
           {"convert {f}dvd.iso {dir}/o.mp4 --title 14", kFailed, "titles 1 to 13"},
           {"convert {f}dvd_novobs {dir}/o.mp4", kFailed, "VOB files are missing or unreadable"},
       }});
}

TEST(HostileCliTest, FrameAndThumbnail) {
  // -t past the end of the 10 s movie; /dev/full is no picture name.
  runTable("frame",
           {each("frame {in} -t 1 -o {dir}/o.png",
                 "--size 0x0; --size 10; --crop 1,2,3; --crop 300,0,100,100; --crop 10,10,0,5; "
                 "--crop a,b; --effect 'No Such Preset'; --zoom sideways; extra"),
            each("frame {in}",
                 "-t 11 -o {dir}/o.png; -t nan -o {dir}/o.png; -t -1 -o {dir}/o.png; -t abc -o "
                 "{dir}/o.png; -t 1 -o {dir}/o.bmp; "
                 "-t 1 -o /dev/full; -t 1; -t 1 -o; -o {dir}/o.png"),
            each("frame", "-t 1 -o {dir}/o.png"),
            each("frame",
                 "{in} -t 1 -o {dir}/missing/o.png; {in} -t 1 -o {dir}/o.png --watermark "
                 "{dir}/missing.png; {f}aac.m4a -t 1 -o {dir}/o.png; {pic} -t 0 -o {pic}; "
                 "{f}dvd.iso -t 1 -o {dir}/o.png --title 0",
                 kFailed),
            {{"frame {f}dvd_novobs -t 1 -o {dir}/o.png", kFailed,
              "VOB files are missing or unreadable"}}});
  // Several times need a %d in the name, and are all made or none.
  runTable("thumbnail",
           {each("thumbnail {in} -o {dir}/o.png",
                 "-t 20; -t nan; -t -5%; -t 101%; -t 1,2; -t 1,,2; -t ,; -s 0x0; -s 10; "
                 "--sheet --count 0; --count 5; --crop 1,2,3; extra"),
            each("thumbnail {in}", "-o /dev/full; ; -t 1,50 -o {dir}/o-%d.png"),
            each("thumbnail",
                 "{in} -o {dir}/missing/o.png; {pic} -t 0 -o {pic}; "
                 "{f}dvd.iso -o {dir}/o.png --title 0",
                 kFailed)});
}

TEST(HostileCliTest, PlayRefusesBeforePlaying) {
  // The picture settings are checked though there is no window to show them.
  runTable("play", {each("play {in}",
                         "--speed 0; --speed nan; --speed 9; --volume -1; "
                         "--volume nan; --start -5; --start nan; --start 50; --window 0x0; "
                         "--audio-tracks ,; --audio-tracks 9; --crop 1,2,3; "
                         "--subtitle-position 1.5; --subtitle-outline -1; --nosuch; extra"),
                    {{"play"},
                     {"play {f}dvd.iso --title 0", kFailed},
                     {"play {f}missing.m4a", kFailed, "missing.m4a"}}});
  // A sound device that cannot be opened: one line, none of ALSA's own.
  const vn::test::CommandResult r =
      vn::test::runVarnel({"play", inputs().in, "--no-video"},
                          {{"SDL_AUDIODRIVER", "alsa"}, {"AUDIODEV", "no-such-device"}}, kTimeout);
  vn::test::expectError(r, kFailed, "no sound device");
}

TEST(HostileCliTest, InfoEffectsAndNoCommand) {
  runTable("others",
           {each("effects",
                 "--apply Glow {pic}; --apply Glow -o {dir}/o.png; --sheet {in} -o {dir}/o.png; "
                 "--apply Glow {pic} --sheet {in} -o {dir}/o.png; -o {dir}/o.png; -t 1; --nosuch; "
                 "--json --apply Glow {pic} -o {dir}/o.png; --json extra; "
                 "--sheet {in} -t 1 -o {dir}/o.png --tile 0x0; "
                 "--sheet {in} -t 1 -o {dir}/o.png --tile 320; "
                 "--sheet {in} -t 1 -o {dir}/o.png --tile 8x8"),
            each("info", "; {in} extra; {in} --nosuch; {in} --title 1"),
            // A name that is not a preset is bad usage (the error lists them).
            each("effects --apply Glow {pic} -o", "/dev/full; {dir}"),
            each("effects --apply Glow {pic} -o", "{pic}", kFailed),
            {
                {"", kUsage},
                {"nosuch", kUsage},
                {"info /dev/full", kFailed},
                {"info {f}no-such-file.mp4", kFailed,
                 "'{f}no-such-file.mp4': No such file or directory"},
                {"info {f}empty.mp4", kFailed, "'{f}empty.mp4': the file is empty"},
                {"info {f}text.mp4", kFailed, "'{f}text.mp4': not media data FFmpeg can read"},
                {"info {f}truncated.mp4 --json", kFailed,
                 "'{f}truncated.mp4': not media data FFmpeg can read"},
                {"info {iso}", kFailed, "not a DVD-Video disc"},
                {"info {dir}", kFailed, "not a DVD-Video disc"},
                {"effects --apply Sepia {pic} -o {dir}/o.png", kUsage, "1935, 1955"},
                {"effects --apply 'color invert' {pic} -o {dir}/o.png", kUsage, "New Effection"},
                {"effects --apply Blur {f}text.mp4 -o {dir}/o.png", kFailed,
                 "'{f}text.mp4': not a picture file that can be read"},
                {"effects --apply Blur {dir}/missing.png -o {dir}/o.png", kFailed, "missing.png"},
                {"effects --apply Blur {pic} -o {dir}/o.bmp", kUsage, ".bmp"},
                {"effects --apply Blur {pic} -o {dir}/none/o.png", kFailed, "no such directory"},
                {"effects --sheet {f}text.mp4 -t 1 -o {dir}/o.png", kFailed, "text.mp4"},
                {"effects --sheet {f}empty.mp4 -t 1 -o {dir}/o.png", kFailed, "empty"},
                {"effects --sheet {f}missing.mp4 -t 1 -o {dir}/o.png", kFailed, "missing.mp4"},
                {"effects --sheet {f}aac.m4a -t 1 -o {dir}/o.png", kFailed, "no video"},
                {"effects --sheet {in} -t -1 -o {dir}/o.png", kUsage, "'-1'"},
                {"effects --sheet {in} -t 1 -o {dir}/o.gif", kUsage, ".gif"},
                {"effects --sheet {pic} -t 0 -o {pic}", kFailed},
            }});
}

// Every subtitle setting, each to one of the commands sharing their check; errors name the value.
TEST(HostileCliTest, SubtitleSettings) {
  const Case settings[] = {
      {"--subtitle-track x", kUsage, "'x'"},
      {"--subtitle-track 2", kUsage, "'2'"},  // two subtitle tracks: 0 and 1
      {"--subtitles {dir}/missing.srt", kFailed, "'{dir}/missing.srt'"},
      {"--subtitles {dir}", kFailed, "'{dir}'"},
      {"--subtitles {f}aac.m4a", kFailed, "'{f}aac.m4a'"},  // no subtitle stream
      {"--subtitle-track -1", kUsage, "'-1'"},
      {"--subtitles {f}subs.srt --subtitle-track 0", kUsage, "'0'"},
      {"--subtitles {f}subs.srt --subtitle-charset NO-SUCH-CHARSET", kUsage, "'NO-SUCH-CHARSET'"},
      {"--subtitles {f}empty.mp4", kFailed, "'{f}empty.mp4'"},
      {"--subtitle-outline -1", kUsage, "'-1'"},
      {"--subtitle-outline 2px", kUsage, "'2px'"},
      {"--subtitle-shadow nan", kUsage, "'nan'"},
      {"--subtitle-color #12345", kUsage, "'#12345'"},
      {"--subtitle-color #gg0000", kUsage, "'#gg0000'"},
      {"--subtitle-color purple", kUsage, "'purple'"},
      {"--subtitle-position 1", kUsage, "'1'"},
      {"--subtitle-position -0.1", kUsage, "'-0.1'"},
      {"--subtitle-font ' '", kUsage, "' '"},
  };
  const char* const commands[] = {"frame {f}multitrack.mkv -t 1 -o {dir}/o.png",
                                  "thumbnail {f}multitrack.mkv -t 1 -o {dir}/o.png",
                                  "convert {f}multitrack.mkv {dir}/o.mp4"};
  // An input without subtitle tracks has no track 0.
  std::vector<Case> cases = {{"frame {in} -t 1 -o {dir}/o.png --subtitle-track 0"}};
  for (size_t i = 0; i < std::size(settings); ++i)
    cases.push_back({std::string(commands[i % 3]) + " " + settings[i].line, settings[i].status,
                     settings[i].says});
  runTable("subtitles", {cases});
}

}  // namespace
