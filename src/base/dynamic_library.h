// A shared library opened at run time, its functions bound by name.
//
// Libraries that a short command never needs but that are expensive to map
// and relocate at every start (libvips, libavfilter) are opened the first
// time they are used, and their functions called through a table of
// pointers filled here.
#pragma once

#include <dlfcn.h>

#include <mutex>
#include <string>

namespace vn {

// The library, opened with its symbols bound now and kept to itself; never
// closed (what it made may outlive any one user). Null, and the reason in
// *reason, when it cannot be loaded.
void* openLibrary(const char* soname, std::string* reason);

// Looks name up in the library into *slot; false, and the reason in
// *reason, when it is missing.
template <typename Function>
bool bindFunction(void* library,
                  const char* soname,
                  const char* name,
                  Function* slot,
                  std::string* reason) {
  *slot = reinterpret_cast<Function>(dlsym(library, name));
  if (!*slot)
    *reason = std::string(soname) + " has no " + name;
  return *slot != nullptr;
}

// What fills a table binds its functions through this: bind(name, &slot)
// looks name up in the library into slot; false, with the reason kept, when
// it is missing.
class Binder {
 public:
  Binder(void* library, const char* soname, std::string* reason)
      : library_(library), soname_(soname), reason_(reason) {}
  template <typename Function>
  bool operator()(const char* name, Function* slot) const {
    return bindFunction(library_, soname_, name, slot, reason_);
  }

 private:
  void* library_;
  const char* soname_;
  std::string* reason_;
};

// A table of a library's functions, and whether it could be filled.
template <typename Table>
struct LoadedTable {
  Table table{};
  bool ok = false;
  std::string reason;  // why not
};

// The library soname opened and its table filled by fill(table, bind),
// which returns whether it could fill it all (and may start the library).
template <typename Table, typename Fill>
LoadedTable<Table> loadTable(const char* soname, const Fill& fill) {
  LoadedTable<Table> loaded;
  if (void* library = openLibrary(soname, &loaded.reason))
    loaded.ok = fill(loaded.table, Binder(library, soname, &loaded.reason));
  return loaded;
}

// The table `load` fills, made the first time it is asked for; null when it
// could not be, with the reason in *reason. Any thread.
template <typename Table>
const Table* tableOnce(LoadedTable<Table> (*load)(), std::string* reason) {
  static std::once_flag once;
  static LoadedTable<Table> loaded;
  std::call_once(once, [load] { loaded = load(); });
  if (!loaded.ok && reason)
    *reason = loaded.reason;
  return loaded.ok ? &loaded.table : nullptr;
}

}  // namespace vn
