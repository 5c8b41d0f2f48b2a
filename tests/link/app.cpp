// A program outside the tree that uses the installed library.
#include <varnel.h>

#include <cstdio>

int main() {
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);
  VNFIFODataBuffer fifo;
  const char bytes[4] = {1, 2, 3, 4};
  fifo.appendBytes(bytes, sizeof bytes);
  std::printf("%s %d %llu %d\n", Varnel::displayStringForLanguage("de").c_str(),
              vn_get_codec_id_by_name("h264") != 0, static_cast<unsigned long long>(fifo.length()),
              format.sample_rate);
  return 0;
}
