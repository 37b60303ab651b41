// The in-memory side of an open hierarchical file: the entry tree (headers
// only; read at open down to the entries two levels below the root, deeper
// families on first use), positioned I/O with a read window and an append
// buffer, and the write bookkeeping (dirty entry headers, bulk writes).
#ifndef PLATFORM_EHFA_HFA_INTERNAL_H_
#define PLATFORM_EHFA_HFA_INTERNAL_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ehfa.h"
#include "platform/emif/object_codec.h"

namespace kzdv {
namespace hfa {

constexpr uint32_t kEntryHeaderSize = 128;  // allocated per entry; 124 are used
constexpr uint32_t kEntryUsed = 124;
constexpr uint32_t kNameSize = 64;
constexpr uint32_t kTypeSize = 32;

// One entry of the tree. Kept small: a block of a hundred thousand ground
// points holds half a million entries, all in memory while the file is open.
// Names and types are views into the file's name store; a family's index by
// name lives beside the tree (Ehfa_File::indexes), not in every node.
struct Node {
  uint32_t pos = 0;  // entry header position
  uint32_t data_pos = 0;
  uint32_t data_size = 0;
  uint32_t mtime = 0;
  uint32_t children = 0;
  uint8_t name_len = 0;
  uint8_t type_len = 0;
  bool dirty = false;
  uint8_t alive : 1;
  // The children are still only on disk: EnsureChildren reads them.
  uint8_t deferred : 1;
  const char* name_text = "";  // UTF-8, in the name store
  const char* type_text = "";
  Node* parent = nullptr;
  Node* child = nullptr;
  Node* last = nullptr;  // last child
  Node* next = nullptr;
  Node* prev = nullptr;
  Node() : alive(1), deferred(0) {}
  std::string_view name() const { return {name_text, name_len}; }
  std::string_view type() const { return {type_text, type_len}; }
};

// Entry names and types of one file, stored once each where they repeat
// (types, and the names of like children such as "ImagePoint0"), in large
// pieces that never move.
class NameStore {
 public:
  // The stored copy of `text` (at most 255 bytes).
  const char* Intern(std::string_view text);

 private:
  std::vector<std::unique_ptr<char[]>> pieces_;
  size_t used_ = 0, capacity_ = 0;
  // A small cache of recent texts by hash: repeated names hit it.
  struct Recent {
    const char* text = nullptr;
    uint8_t len = 0;
  };
  Recent recent_[512];
};

// Children by name of one large family, built after a few lookups.
struct ChildIndex {
  int lookups = 0;
  std::unique_ptr<std::unordered_map<std::string_view, Node*>> map;
};

// Positioned file access. Reads go through a 64 KiB window; appended bytes
// collect in a buffer that is written in large pieces.
class FileIO {
 public:
  ~FileIO();
  bool Open(const std::string& path, bool writable, bool create, std::string* error);
  bool Close(std::string* error);
  bool Read(uint64_t offset, size_t size, void* out, std::string* error);
  bool Write(uint64_t offset, const void* data, size_t size, std::string* error);
  // Appends at the end; returns the position of the bytes.
  bool Append(const void* data, size_t size, uint32_t* pos, std::string* error);
  bool FlushAppend(std::string* error);
  // Writes `count` pieces of `size` bytes at ascending, non-overlapping
  // offsets (entry headers after a bulk write); `render(i, out)` fills piece
  // i. Pieces lying close together are patched into one span that is read,
  // changed and written back whole, so a bulk write of many nodes costs a
  // few large writes, not one per node.
  bool WriteAscending(size_t count, size_t size, const std::function<uint64_t(size_t)>& offset,
                      const std::function<void(size_t, uint8_t*)>& render, std::string* error);
  uint64_t size() const { return size_; }
  uint64_t bytes_read() const { return bytes_read_; }
  // Lets a caller patch bytes that are still in the append buffer.
  uint8_t* Pending(uint64_t offset, size_t size);

 private:
  int fd_ = -1;
  uint64_t size_ = 0;  // logical size, pending appends included
  uint64_t append_start_ = 0;
  std::vector<uint8_t> append_;
  std::vector<uint8_t> window_;
  uint64_t window_pos_ = 0;
  uint64_t bytes_read_ = 0;
};

}  // namespace hfa
}  // namespace kzdv

struct Ehfa_File {
  std::wstring name;
  bool writable = false;
  kzdv::hfa::FileIO io;
  kzdv::mif::DictionaryPtr dict;
  uint32_t header_pos = 0;  // Ehfa_File record
  uint32_t dict_pos = 0;
  uint32_t version = 1;
  std::deque<kzdv::hfa::Node> nodes;
  kzdv::hfa::Node* root = nullptr;
  kzdv::hfa::Node* current = nullptr;
  int bulk_depth = 0;
  std::vector<kzdv::hfa::Node*> dirty;
  kzdv::hfa::NameStore names;
  // Name indexes of large families, by parent.
  mutable std::unordered_map<const kzdv::hfa::Node*, kzdv::hfa::ChildIndex> indexes;
  // Scratch for Ehfa_EntryInfo strings.
  std::string info_name, info_type;
  // Families read on first use: the entries read so far (one bit per 64
  // bytes of file, to refuse cycles and shared entries), the families read
  // since the open in that order, the slots of released entries, whether
  // families may be released (not while a copy walks the tree), and the
  // first failure to read one (reported by the next seek).
  std::vector<uint64_t> seen;
  std::deque<kzdv::hfa::Node*> families;
  std::vector<kzdv::hfa::Node*> free_nodes;
  bool hold_families = false;
  std::string family_error;

  // Tree and I/O helpers (hfa_file.cpp). Each returns false with *error.
  bool Load(std::string* error);
  bool InitNew(std::string* error);
  kzdv::hfa::Node* Resolve(const std::string& path) const;
  kzdv::hfa::Node* FindChild(kzdv::hfa::Node* parent, std::string_view name) const;
  std::string PathOf(const kzdv::hfa::Node* n) const;
  kzdv::hfa::Node* NewNode(std::string_view name, std::string_view type);
  // Reads the children of `n` if they are still on disk. False (and
  // family_error set) when they cannot be read.
  bool EnsureChildren(kzdv::hfa::Node* n);
  // Gives back the memory of families read long ago that nothing refers to
  // (clean leaves, the current entry not among them); they are read again
  // when needed. Called between calls, where no entry is held.
  void ReleaseFamilies();
  // Names and types longer than `limit` (by default what an entry header
  // holds with its terminating zero) are cut to fit.
  void SetName(kzdv::hfa::Node* n, std::string_view name, size_t limit = kzdv::hfa::kNameSize - 1);
  void SetType(kzdv::hfa::Node* n, std::string_view type, size_t limit = kzdv::hfa::kTypeSize - 1);
  void LinkFirst(kzdv::hfa::Node* parent, kzdv::hfa::Node* n);
  void LinkLast(kzdv::hfa::Node* parent, kzdv::hfa::Node* n);
  void LinkAfter(kzdv::hfa::Node* prev, kzdv::hfa::Node* n);
  void Unlink(kzdv::hfa::Node* n);
  void MarkDirty(kzdv::hfa::Node* n);
  // Writes `bytes` as the node's data (in place when they fit, else at the
  // end); `design` (may be null) rebases pointer offsets to the position.
  bool SetData(kzdv::hfa::Node* n, std::vector<uint8_t>* bytes, const kzdv::mif::DesignImpl* design,
               std::string* error);
  bool ReadData(const kzdv::hfa::Node* n, std::vector<uint8_t>* bytes, std::string* error);
  // Entry headers, dictionary and append buffer to disk. `force` also inside
  // a bulk write.
  bool Flush(bool force, std::string* error);
};

namespace kzdv {
namespace hfa {
// Bytes read from disk since the file was opened (for measurements).
uint64_t BytesRead(const Ehfa_File* file);
}  // namespace hfa
}  // namespace kzdv

#endif  // PLATFORM_EHFA_HFA_INTERNAL_H_
