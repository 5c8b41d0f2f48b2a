// libvarnel: the whole public interface.
//
//   #include <varnel.h>      (pkg-config --cflags --libs varnel)
#pragma once

#include "core/fifo_data_buffer.h"
#include "core/formats.h"
#include "core/log.h"
#include "core/varnel.h"
#include "movie/output_audio_graph.h"
#include "output/output_format.h"
