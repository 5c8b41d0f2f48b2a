// vn::ImageFilter: an image filter object with named key-value parameters,
// and the process-wide registry that makes filters by name.
//
// A filter holds its inputs (the image it acts on and its settings) under
// fixed keys such as "inputImage" or "inputRadius", each with a default, and
// makes its output image on request: outputImage() builds a lazily
// evaluated vn::FilterImage from the current inputs, so asking for it is
// cheap and nothing is rendered. A filter whose settings are at their neutral
// values (saturation 1, angle 0, intensity 0, ...) returns its input image
// itself, so a neutral chain costs nothing.
//
// Built-in filters, with their inputs and defaults (registered on the first
// use of the registry; what each does is written beside it in
// image_filter.cpp, and the operations it records in image_ops.h):
//
//   ColorControls       inputSaturation 1, inputBrightness 0, inputContrast 1
//   HueAdjust           inputAngle 0 (radians)
//   ColorInvert         -
//   ExposureAdjust      inputEV 0
//   GaussianBlur        inputRadius 10 (the standard deviation, pixels)
//   SharpenLuminance    inputSharpness 0.4, inputRadius 1.69
//   SpotLight           inputLightPosition (400, 600, 150),
//                       inputLightPointsAt (200, 200, 0), inputBrightness 3,
//                       inputConcentration 0.1, inputColor (1, 1, 1, 1)
//   LineScreen          inputCenter (150, 150), inputAngle 0, inputWidth 6,
//                       inputSharpness 0.7
//   ColorMonochrome     inputColor (0.6, 0.45, 0.3, 1), inputIntensity 1
//   SepiaTone           inputIntensity 1
//   Gloom, Bloom        inputRadius 10, inputIntensity 0.5
//   HexagonalPixellate  inputCenter (150, 150), inputScale 8
//   SourceOverCompositing, SourceInCompositing
//                       inputImage (source), inputBackgroundImage (destination)
//
// Every filter also takes "inputImage". Positions are picture space (origin
// bottom left, y up, pixels); colours are sRGB components 0..1 whose alpha
// is ignored.
//
// Threads: the registry may be used from any thread. One filter may be read
// and set from several threads (its parameters are guarded by a lock), but a
// filter has one set of inputs: to filter different images at once, give
// each thread its own copy().
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "image/filter_image.h"

namespace vn {

// Parameter keys.
inline constexpr char kInputImageKey[] = "inputImage";
inline constexpr char kInputBackgroundImageKey[] = "inputBackgroundImage";
inline constexpr char kInputSaturationKey[] = "inputSaturation";
inline constexpr char kInputBrightnessKey[] = "inputBrightness";
inline constexpr char kInputContrastKey[] = "inputContrast";
inline constexpr char kInputAngleKey[] = "inputAngle";
inline constexpr char kInputEVKey[] = "inputEV";
inline constexpr char kInputRadiusKey[] = "inputRadius";
inline constexpr char kInputSharpnessKey[] = "inputSharpness";
inline constexpr char kInputLightPositionKey[] = "inputLightPosition";
inline constexpr char kInputLightPointsAtKey[] = "inputLightPointsAt";
inline constexpr char kInputConcentrationKey[] = "inputConcentration";
inline constexpr char kInputColorKey[] = "inputColor";
inline constexpr char kInputCenterKey[] = "inputCenter";
inline constexpr char kInputWidthKey[] = "inputWidth";
inline constexpr char kInputIntensityKey[] = "inputIntensity";
inline constexpr char kInputScaleKey[] = "inputScale";

// Category names of the registry's attributes.
inline constexpr char kCategoryColorAdjustment[] = "CategoryColorAdjustment";
inline constexpr char kCategoryColorEffect[] = "CategoryColorEffect";
inline constexpr char kCategoryBlur[] = "CategoryBlur";
inline constexpr char kCategorySharpen[] = "CategorySharpen";
inline constexpr char kCategoryStylize[] = "CategoryStylize";
inline constexpr char kCategoryHalftoneEffect[] = "CategoryHalftoneEffect";
inline constexpr char kCategoryCompositeOperation[] = "CategoryCompositeOperation";
inline constexpr char kCategoryVideo[] = "CategoryVideo";
inline constexpr char kCategoryStillImage[] = "CategoryStillImage";
inline constexpr char kCategoryInterlaced[] = "CategoryInterlaced";
inline constexpr char kCategoryNonSquarePixels[] = "CategoryNonSquarePixels";
inline constexpr char kCategoryBuiltIn[] = "CategoryBuiltIn";

class ImageFilter;

// A position or direction of two or three components; a two-component
// vector reads as z = 0 where three are needed.
struct FilterVector {
  double x = 0, y = 0, z = 0;
  int count = 2;

  static FilterVector xy(double x, double y) { return {x, y, 0, 2}; }
  static FilterVector xyz(double x, double y, double z) { return {x, y, z, 3}; }
};

using FilterList = std::vector<std::shared_ptr<ImageFilter>>;

// A parameter value: none, a number, a vector, a colour (sRGB, straight
// alpha), an image or a list of filters. Numbers are doubles: write 3.0,
// not 3 (a float is widened as it stands).
using FilterValue =
    std::variant<std::monostate, double, FilterVector, FilterImage::Color, FilterImage, FilterList>;

// What the registry knows about a filter besides how to make it.
struct FilterAttributes {
  std::string displayName;
  std::vector<std::string> categories;
};

class ImageFilter {
 public:
  // Makes a new filter for a registered name (the name it was asked for).
  using Constructor = std::function<std::shared_ptr<ImageFilter>(const std::string& name)>;
  // The kinds of value an input takes (the index of the FilterValue
  // alternative).
  enum class Kind { Number = 1, Vector = 2, Color = 3, Image = 4, Filters = 5 };

  // A new filter of a registered name, with every input at its default; null
  // for an unknown name. Names are matched exactly, letter case included.
  // The built-in filters are registered on the first use of the registry.
  static std::shared_ptr<ImageFilter> withName(const std::string& name);
  // Registers a filter under name (replacing an earlier registration of the
  // same name). The constructor is called without any lock held and may
  // itself use the registry.
  static void registerFilter(const std::string& name,
                             Constructor constructor,
                             FilterAttributes attributes);
  // The attributes registered with name; none for an unknown name.
  static std::optional<FilterAttributes> attributesForName(const std::string& name);
  // Every registered name, sorted.
  static std::vector<std::string> filterNames();

  ImageFilter& operator=(const ImageFilter&) = delete;
  virtual ~ImageFilter();

  // The name the filter was registered under.
  const std::string& name() const { return name_; }

  // Sets an input. False, changing nothing, when the filter has no input of
  // that key, the value is of another kind, or a number or component is not
  // finite. Setting std::monostate returns the input to its default (none for
  // images).
  virtual bool setValue(const std::string& key, FilterValue value);
  // The current value of an input (its default when it was not set); none
  // for a key the filter does not take.
  virtual FilterValue value(const std::string& key) const;
  // The keys of the filter's inputs, in the filter's own order.
  virtual std::vector<std::string> inputKeys() const;
  // The inputs set explicitly, in the order they were first set.
  virtual std::vector<std::pair<std::string, FilterValue>> parameters() const;
  // One line: the name, then each explicitly set input as key=value, e.g.
  // "ExposureAdjust inputEV=3"; filter lists in brackets.
  std::string describe() const;

  // The filtered image (lazy); none without an input image.
  virtual std::optional<FilterImage> outputImage() const = 0;
  // A deep copy: its own parameters (filter lists copied filter by filter),
  // sharing no state with this filter. Images are immutable and shared.
  virtual std::shared_ptr<ImageFilter> copy() const = 0;

  // One value as text, as describe() writes it.
  static std::string describeValue(const FilterValue& value);

 protected:
  explicit ImageFilter(std::string name);
  // Copies the name, the inputs and their values (deeply, as copy() says).
  ImageFilter(const ImageFilter& other);

  // Declares an input; for the constructors of subclasses. An image input
  // defaults to none whatever def holds.
  void declareInput(const std::string& key, Kind kind, FilterValue def);

  // The values of every input (defaults where not set), read under the lock
  // at once, in declaration order.
  std::vector<FilterValue> snapshot() const;

 private:
  struct Input {
    std::string key;
    Kind kind;
    FilterValue def;
    FilterValue value;
    bool set = false;
    size_t setOrder = 0;  // when it was first set, for parameters()
  };

  const std::string name_;
  mutable std::mutex lock_;
  // Guarded by lock_.
  std::vector<Input> inputs_;
  size_t nextSetOrder_ = 0;
};

}  // namespace vn
