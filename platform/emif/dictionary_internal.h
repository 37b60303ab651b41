// Dictionaries private to emif: designs by name in definition order, the
// designs a parsed text could not build, and the borrowed design handles a
// dictionary hands out. Modules above emif use the dictionary calls of
// platform/emif/object_codec.h.
#ifndef PLATFORM_EMIF_DICTIONARY_INTERNAL_H_
#define PLATFORM_EMIF_DICTIONARY_INTERNAL_H_

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/emif/design_internal.h"

namespace kzdv {
namespace mif {

class Dictionary {
 public:
  // Adds `d` and the designs it uses (those first). Replaces a different
  // design of the same name. Returns true if anything changed.
  bool Add(const DesignRef& d);
  DesignRef Find(const std::string& name) const;
  const std::vector<DesignRef>& designs() const { return order_; }
  // Why a design read from text could not be built (e.g. an unknown design
  // used by one of its fields); empty when none is known.
  std::string Unusable(const std::string& name) const;
  std::string Text() const;
  // Parses dictionary text; false with *error on malformed text. Designs that
  // use unknown designs are left out and remembered as unusable.
  static bool Parse(const char* text, size_t length, Dictionary* out, std::string* error);

 private:
  std::vector<DesignRef> order_;
  std::unordered_map<std::string, size_t> index_;
  std::map<std::string, std::string> unusable_;
};

}  // namespace mif
}  // namespace kzdv

struct Emif_Dictionary {
  kzdv::mif::Dictionary dict;
  std::vector<std::unique_ptr<Emif_Design>> handles;  // borrowed handles handed out
  std::unordered_map<const kzdv::mif::DesignImpl*, Emif_Design*> handle_of;
  bool changed = false;  // since the text was last written
  const Emif_Design* Handle(const kzdv::mif::DesignRef& d);
};

#endif  // PLATFORM_EMIF_DICTIONARY_INTERNAL_H_
