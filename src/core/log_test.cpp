#include "core/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/frame.h>
}

#include "effects/effect_video_stream.h"

namespace {

// A failure gotten over logs the call and FFmpeg's reason, at debug level only.
TEST(LogTest, FailuresAreLoggedAtDebugLevelOnly) {
  std::vector<std::string> lines;
  vn_set_log_handler([&](const std::string& line) { lines.push_back(line); });
  const struct {
    const char* level;  // VARNEL_LOG, or none
    size_t lines;
  } levels[] = {{"debug", 1}, {nullptr, 0}, {"info", 0}};
  const struct {
    const char* what;
    std::function<void()> fail;
    const char* call;
    const char* reason;
  } failures[] = {
      {"a status", [] { vn::logFailure("avformat_open_input", AVERROR(ENOENT)); },
       "avformat_open_input failed", "No such file or directory"},
      // A converter for pictures of no size cannot be built: no graph.
      {"a filter graph",
       [] {
         auto stream = VNFFEffectVideoStream::create();
         stream->updateConverter();
         uint8_t pixel[4] = {};
         vn::ff::Frame frame = vn::ff::makeFrame();
         frame->format = AV_PIX_FMT_RGBA;
         frame->data[0] = pixel;
         stream->writeFrame(frame.get());
         frame->data[0] = nullptr;
         EXPECT_FALSE(stream->currentImage());
       },
       "avfilter_graph_create_filter (buffer) failed", "Invalid argument"},
  };
  for (const auto& level : levels) {
    if (level.level)
      setenv("VARNEL_LOG", level.level, 1);
    else
      unsetenv("VARNEL_LOG");
    for (const auto& failure : failures) {
      lines.clear();
      failure.fail();
      ASSERT_EQ(lines.size(), level.lines)
          << failure.what << " at " << (level.level ? level.level : "none");
      EXPECT_TRUE(lines.empty() || (lines[0].rfind("varnel: debug: ", 0) == 0 &&
                                    lines[0].find(failure.call) != std::string::npos &&
                                    lines[0].find(failure.reason) != std::string::npos))
          << lines[0];
    }
  }
  unsetenv("VARNEL_LOG");
  vn_set_log_handler(nullptr);
}

}  // namespace
