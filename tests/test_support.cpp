#include "test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace vn::test {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string fixture(const std::string& name) {
  const char* dir = std::getenv("VARNEL_FIXTURES");
  return std::string(dir && *dir ? dir : VARNEL_FIXTURES_DIR) + "/" + name;
}

std::string scratchDir() {
  static const std::string dir = [] {
    std::string d = std::filesystem::temp_directory_path().string() + "/varnel-test-" +
                    std::to_string(getpid());
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

std::string scratch(const std::string& name) {
  return scratchDir() + "/" + name;
}

bool noTemporaryFiles() {
  const std::vector<std::string> names = entries(scratchDir());
  return std::none_of(names.begin(), names.end(), [](const std::string& name) {
    return name.find(".varnel-") != std::string::npos;
  });
}

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.push_back(entry.path().filename().string());
  return names;
}

std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> all;
  for (size_t at = line.find_first_not_of(' '); at != std::string::npos;
       at = line.find_first_not_of(' ', at)) {
    const bool quoted = line[at] == '\'';
    const size_t end = line.find(quoted ? '\'' : ' ', at + 1);
    all.push_back(line.substr(at + quoted, end == std::string::npos ? end : end - at - quoted));
    at = end == std::string::npos ? end : end + quoted;
  }
  return all;
}

void expectError(const CommandResult& r, int status, const std::string& says) {
  EXPECT_EQ(r.status, status) << r.err;
  EXPECT_EQ(r.err.rfind("varnel: error: ", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
  EXPECT_TRUE(r.out.empty()) << r.out;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    all.push_back(line);
  return all;
}

std::string runShell(const std::string& command, int* status) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  int rc = -1;
  if (pipe) {
    std::array<char, 4096> buffer;
    for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
      out.append(buffer.data(), n);
    rc = pclose(pipe);
  }
  if (status)
    *status = rc != -1 && WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

CommandResult runVarnel(const std::vector<std::string>& args,
                        const std::map<std::string, std::string>& env,
                        int timeoutSeconds,
                        const std::string& wrapper) {
  static std::atomic<int> counter{0};
  const std::string errPath = scratchDir() + "/stderr-" + std::to_string(++counter);
  std::string command;
  for (const auto& [name, value] : env)
    command += name + "=" + shellQuote(value) + " ";
  command += wrapper.empty() ? "" : wrapper + " ";
  if (timeoutSeconds > 0)
    command += "timeout -k 5 " + std::to_string(timeoutSeconds) + " ";
  command += shellQuote(VARNEL_CLI_PATH);
  for (const auto& a : args)
    command += " " + shellQuote(a);
  command += " 2>" + shellQuote(errPath) + " </dev/null";
  CommandResult result;
  result.out = runShell(command, &result.status);
  result.err = readFile(errPath);
  std::filesystem::remove(errPath);
  return result;
}

nlohmann::json ffprobe(const std::string& path) {
  const std::string out =
      runShell("ffprobe -v error -show_streams -show_format -show_chapters -of json " +
               shellQuote(path) + " 2>/dev/null");
  return nlohmann::json::parse(out, nullptr, false);
}

const nlohmann::json* streamOf(const nlohmann::json& probe, const std::string& type) {
  for (const auto& s : probe["streams"])
    if (s["codec_type"] == type)
      return &s;
  return nullptr;
}

double probedDuration(const std::string& path) {
  const nlohmann::json probe = ffprobe(path);
  if (!probe.contains("format") || !probe["format"].contains("duration"))
    return -1;
  return std::stod(probe["format"]["duration"].get<std::string>());
}

bool realTimeChecks() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  return false;
#endif
  const char* asked = std::getenv("VARNEL_REALTIME_TESTS");
  return asked && std::string(asked) == "1";
}

Raster Raster::part(int x, int y, int w, int h) const {
  Raster r{w, h, {}};
  for (int j = 0; j < h; ++j)
    r.rgba.insert(r.rgba.end(), at(x, y + j), at(x + w, y + j));
  return r;
}

namespace {

// The pictures ffmpeg decodes with the options, read from its PAM output.
std::vector<Raster> decodePictures(const std::string& options) {
  const std::string bytes = runShell("ffmpeg -hide_banner -loglevel error -nostdin " + options +
                                     " -c:v pam -pix_fmt rgba -f image2pipe -");
  std::vector<Raster> pictures;
  for (size_t at = 0, end; (end = bytes.find("ENDHDR\n", at)) != std::string::npos;) {
    Raster r;
    if (std::sscanf(bytes.c_str() + at, "P7 WIDTH %d HEIGHT %d", &r.width, &r.height) != 2 ||
        end + 7 + size_t(r.width) * r.height * 4 > bytes.size())
      break;
    at = end + 7 + size_t(r.width) * r.height * 4;
    r.rgba.assign(bytes.begin() + static_cast<std::ptrdiff_t>(end + 7),
                  bytes.begin() + static_cast<std::ptrdiff_t>(at));
    pictures.push_back(std::move(r));
  }
  return pictures;
}

}  // namespace

Raster readPicture(const std::string& path,
                   const std::string& filters,
                   const std::string& inputOptions) {
  std::vector<Raster> pictures =
      decodePictures(inputOptions + " -i " + shellQuote(path) +
                     (filters.empty() ? "" : " -vf " + shellQuote(filters)) + " -frames:v 1");
  return pictures.empty() ? Raster{} : std::move(pictures.front());
}

std::vector<Raster> readPictures(const std::string& path, const std::string& filters) {
  return decodePictures("-i " + shellQuote(path) + " -vf " + shellQuote(filters) +
                        " -fps_mode passthrough");
}

Raster frameOf(const std::string& input, const std::vector<std::string>& args) {
  static std::atomic<int> counter{0};
  const std::string png = scratch("frame-" + std::to_string(++counter) + ".png");
  std::vector<std::string> all = {"frame", input, "-o", png};
  all.insert(all.end(), args.begin(), args.end());
  const CommandResult r = runVarnel(all);
  EXPECT_EQ(r.status, 0) << r.err;
  return readPicture(png);
}

double psnr(const Raster& a, const Raster& b) {
  if (a.width != b.width || a.height != b.height || a.rgba.size() != b.rgba.size() ||
      a.rgba.empty())
    return 0;
  double squares = 0;
  for (size_t i = 0; i < a.rgba.size(); ++i) {
    if (i % 4 != 3)
      squares += std::pow(double(a.rgba[i]) - double(b.rgba[i]), 2);
  }
  const double mse = squares / double(a.rgba.size() * 3 / 4);
  return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

}  // namespace vn::test
