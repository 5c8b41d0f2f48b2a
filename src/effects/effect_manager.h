// EffectManager: the catalogue of named picture effects a user can choose
// for a movie ("1935", "Blur", "Glow", ...). It maps each preset name to a
// configured image filter and hands out fresh copies of those filters, so
// that every caller may give its copy an input image of its own.
//
// The catalogue is one table, built once per process by the shared instance
// (manager()): each preset name maps to its filter, and the key
// "effectNames" maps to the list of preset names in catalogue order. The
// filters in the table are never given an input image.
//
// Threads: the table is immutable and may be read from any thread; the
// copies handed out belong to their callers. manager() may be called from
// any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "image/image_filter.h"

class EffectManager {
 public:
  // A table entry: a preset's filter, or (under kEffectNamesKey) the names.
  using Entry = std::variant<std::shared_ptr<vn::ImageFilter>, std::vector<std::string>>;
  using EffectTable = std::map<std::string, Entry>;

  // The key of the name list in the table.
  static constexpr char kEffectNamesKey[] = "effectNames";

  // The shared instance, made on the first call (after registering
  // ArrayFilter, which two presets use) and kept for the life of the
  // process.
  static std::shared_ptr<EffectManager> manager();
  // A new manager whose table is makeEffects().
  static std::shared_ptr<EffectManager> create();
  // A new catalogue table: the name list first, then each preset in
  // catalogue order, its filter made by name from the image-filter registry
  // and configured. A filter the registry cannot make leaves its name listed
  // with no entry.
  static EffectTable makeEffects();

  EffectManager(const EffectManager&) = delete;
  EffectManager& operator=(const EffectManager&) = delete;
  ~EffectManager();

  // The shared instance's newFilterWithName: a new copy of a preset's
  // filter, owned by the caller; null for an unknown name (names match
  // exactly, letter case included) and for "effectNames", which is not a
  // filter (entryWithName gives the list).
  static std::shared_ptr<vn::ImageFilter> filterWithName(const std::string& name);
  // The shared instance's effectNames().
  static const std::vector<std::string>& allFilterNames();
  // A fresh copy of every preset's filter, in catalogue order; names with no
  // filter are skipped.
  static std::vector<std::shared_ptr<vn::ImageFilter>> allFilters();

  // filterWithName on this manager's table.
  std::shared_ptr<vn::ImageFilter> newFilterWithName(const std::string& name) const;
  // A copy of any entry: a preset's filter copied, or for "effectNames" a
  // copy of the name list; none for an unknown name.
  std::optional<Entry> entryWithName(const std::string& name) const;
  // The table's own name list (not a copy), in catalogue order; empty when
  // the table has none. The reference stays valid while the manager lives,
  // even across setEffects.
  const std::vector<std::string>& effectNames() const;

  // The table. Replacing it does not change copies already handed out.
  std::shared_ptr<const EffectTable> effects() const;
  void setEffects(EffectTable effects);

 private:
  EffectManager();

  mutable std::mutex lock_;
  // Guarded by lock_.
  std::shared_ptr<const EffectTable> effects_;  // never null
  // Tables replaced by setEffects, kept so that the name lists handed out
  // by effectNames() stay valid.
  std::vector<std::shared_ptr<const EffectTable>> retired_;
};
