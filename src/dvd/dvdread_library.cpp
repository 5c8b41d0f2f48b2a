#include "dvd/dvdread_library.h"

#include "base/dynamic_library.h"
#include "core/check.h"

namespace vn {

namespace {

LoadedTable<DvdreadLibrary> load() {
  LoadedTable<DvdreadLibrary> loaded;
  std::string& why = loaded.reason;
  void* handle = openLibrary(VARNEL_DVDREAD_SONAME, &why);
  if (!handle)
    return loaded;
  DvdreadLibrary& t = loaded.table;
  const auto bind = [handle, &why](const char* name, auto* slot) {
    return bindFunction(handle, VARNEL_DVDREAD_SONAME, name, slot, &why);
  };
#define VN_BIND(name) bind(#name, &t.name)
  loaded.ok = VN_BIND(DVDOpen2) && VN_BIND(DVDClose) && VN_BIND(DVDUDFVolumeInfo) &&
              VN_BIND(ifoOpenVMGI) && VN_BIND(ifoOpenVTSI) && VN_BIND(ifoRead_PGCIT) &&
              VN_BIND(ifoRead_TITLE_C_ADT) && VN_BIND(ifoClose) && VN_BIND(DVDOpenFile) &&
              VN_BIND(DVDCloseFile) && VN_BIND(DVDFileSize) && VN_BIND(DVDFileSeek) &&
              VN_BIND(DVDReadBytes) && VN_BIND(DVDReadBlocks);
#undef VN_BIND
  return loaded;
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
