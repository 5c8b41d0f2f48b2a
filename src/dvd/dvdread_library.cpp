#include "dvd/dvdread_library.h"

#include "base/dynamic_library.h"
#include "core/check.h"

namespace vn {

namespace {

LoadedTable<DvdreadLibrary> load() {
  return loadTable<DvdreadLibrary>(
      VARNEL_DVDREAD_SONAME, [](DvdreadLibrary& t, const Binder& bind) {
#define VN_BIND(name) bind(#name, &t.name)
        return VN_BIND(DVDOpen2) && VN_BIND(DVDClose) && VN_BIND(DVDUDFVolumeInfo) &&
               VN_BIND(ifoOpenVMGI) && VN_BIND(ifoOpenVTSI) && VN_BIND(ifoRead_PGCIT) &&
               VN_BIND(ifoRead_TITLE_C_ADT) && VN_BIND(ifoClose) && VN_BIND(DVDOpenFile) &&
               VN_BIND(DVDCloseFile) && VN_BIND(DVDFileSize) && VN_BIND(DVDFileSeek) &&
               VN_BIND(DVDReadBytes) && VN_BIND(DVDReadBlocks);
#undef VN_BIND
      });
}

}  // namespace

const DvdreadLibrary* DvdreadLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

const DvdreadLibrary& dvdread() {
  const DvdreadLibrary* library = DvdreadLibrary::get();
  VN_DCHECK(library, "libdvdread is asked for before anything was opened with it");
  return *library;
}

}  // namespace vn
