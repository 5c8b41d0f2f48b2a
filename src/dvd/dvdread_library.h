// libdvdread, loaded the first time a disc is opened.
//
// Most runs open no disc; a one-picture command should not pay for mapping
// and relocating it at start. Everything made through it (a reader, an IFO,
// a file) exists only once it is loaded, so those who close them call
// dvdread() without a check.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

#include <dvdread/dvd_reader.h>
#include <dvdread/ifo_read.h>

namespace vn {

struct DvdreadLibrary {
  decltype(&::DVDOpen2) DVDOpen2;
  decltype(&::DVDClose) DVDClose;
  decltype(&::DVDUDFVolumeInfo) DVDUDFVolumeInfo;
  decltype(&::ifoOpenVMGI) ifoOpenVMGI;
  decltype(&::ifoOpenVTSI) ifoOpenVTSI;
  decltype(&::ifoRead_PGCIT) ifoRead_PGCIT;
  decltype(&::ifoRead_TITLE_C_ADT) ifoRead_TITLE_C_ADT;
  decltype(&::ifoClose) ifoClose;
  decltype(&::DVDOpenFile) DVDOpenFile;
  decltype(&::DVDCloseFile) DVDCloseFile;
  decltype(&::DVDFileSize) DVDFileSize;
  decltype(&::DVDFileSeek) DVDFileSeek;
  decltype(&::DVDReadBytes) DVDReadBytes;
  decltype(&::DVDReadBlocks) DVDReadBlocks;

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const DvdreadLibrary* get(std::string* reason = nullptr);
};

// The loaded library, for what was made through it.
const DvdreadLibrary& dvdread();

}  // namespace vn
