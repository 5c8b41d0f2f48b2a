// libvarnel: the whole public interface.
//
//   #include <varnel.h>      (pkg-config --cflags --libs varnel)
#pragma once

#include "core/fifo_data_buffer.h"
#include "core/formats.h"
#include "core/log.h"
#include "core/varnel.h"
#include "effects/array_filter.h"
#include "effects/effect_manager.h"
#include "effects/image_colorspace_converter.h"
#include "media/audio_buffer.h"
#include "media/index_set.h"
#include "media/media.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "media/movie_link.h"
#include "media/subtitle_source.h"
#include "movie/effect_audio_stream.h"
#include "movie/movie.h"
#include "movie/output_audio_graph.h"
#include "output/audio_converter.h"
#include "output/movie_file_output.h"
#include "output/output_format.h"
#include "platform/bitmap_context.h"
#include "platform/bitmap_image.h"
#include "platform/filter_image.h"
#include "platform/image_filter.h"
