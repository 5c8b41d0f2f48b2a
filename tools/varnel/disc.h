// DVD-Video discs in the front end: telling a disc from a media file,
// opening one, choosing the source a command reads, and `varnel info` of a
// disc.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varnel.h"

namespace varnel_cli {

// Whether path names a disc rather than a media file: a folder (the disc's
// root or its VIDEO_TS folder), a block device, an .iso or .img image, or
// an .IFO file in a VIDEO_TS folder (taken as that folder).
bool isDiscPath(const std::string& path);

// The disc at path; null with a one-line reason when it is not a DVD-Video
// disc whose video manager can be read.
std::shared_ptr<VNDVD> openDisc(const std::string& path, std::string* reason);

// The source a command reads: number `title` (from 1, in the order of
// titleSources, as `varnel info` lists them), or without one the source
// with the most sectors — the main feature on nearly every disc. Null with
// a reason when the disc offers none or the number is out of range.
std::shared_ptr<VNDVDSource> chooseSource(VNDVD& disc,
                                          std::optional<int> title,
                                          std::string* reason);

// Adds --title N to a command that reads an input.
void addTitleOption(CLI::App* command, std::optional<int>* title);

// `varnel info` of a disc: volume, region, title sets, titles and the
// numbered sources; exit status.
int discInfo(const std::string& path, bool json);

}  // namespace varnel_cli
