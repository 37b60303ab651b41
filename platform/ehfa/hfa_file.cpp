// The entry tree of an open hierarchical file and its I/O.
//
// Layout written: the 16-byte tag "EHFA_HEADER_TAG" and the position of the
// file record (20); the file record {version 1, free list 0, root entry,
// entry header length 128, dictionary}; the dictionary text; then entries,
// each a 128-byte header followed by its data. Replaced data that no longer
// fit and superseded dictionaries are left in place unreferenced, as other
// writers of the format do.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_set>

#include "platform/ehfa/hfa_internal.h"
#include "platform/emif/byte_order.h"

using kzdv::mif::LoadLe32;
using kzdv::mif::StoreLe32;

namespace kzdv {
namespace hfa {

// The tree of a large block holds half a million entries: keep them small.
static_assert(sizeof(void*) != 8 || sizeof(Node) <= 80, "an entry of the tree grew");

namespace {
constexpr size_t kWindow = 64 * 1024;
constexpr size_t kAppendLimit = 64 * 1024 * 1024;
constexpr char kTag[16] = "EHFA_HEADER_TAG";
// The file-structure designs every file carries.
constexpr char kBaseDictionary[] =
    "{1:lversion,1:LfreeList,1:LrootEntryPtr,1:sentryHeaderLength,1:LdictionaryPtr,}Ehfa_File,"
    "{1:Lnext,1:Lprev,1:Lparent,1:Lchild,1:Ldata,1:ldataSize,64:cname,32:ctype,1:tmodTime,}"
    "Ehfa_Entry,{16:clabel,1:LheaderPtr,}Ehfa_HeaderTag,{1:LfreeList,1:lfreeSize,}"
    "Ehfa_FreeListNode,{1:lsize,1:Lptr,}Ehfa_Data,.";

std::string Errno() { return std::strerror(errno); }

std::string_view FixedText(const uint8_t* p, size_t n) {
  size_t len = 0;
  while (len < n && p[len] != 0) ++len;
  return std::string_view(reinterpret_cast<const char*>(p), len);
}
}  // namespace

// ---- FileIO --------------------------------------------------------------

FileIO::~FileIO() {
  if (fd_ >= 0) ::close(fd_);
}

bool FileIO::Open(const std::string& path, bool writable, bool create, std::string* error) {
  int flags = writable ? O_RDWR : O_RDONLY;
  if (create) flags |= O_CREAT | O_TRUNC;
  fd_ = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    *error = Errno();
    return false;
  }
  struct stat st;
  if (::fstat(fd_, &st) != 0) {
    *error = Errno();
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    *error = "it is a directory";
    return false;
  }
  size_ = append_start_ = static_cast<uint64_t>(st.st_size);
  return true;
}

bool FileIO::Close(std::string* error) {
  bool ok = FlushAppend(error);
  if (fd_ >= 0 && ::close(fd_) != 0 && ok) {
    *error = Errno();
    ok = false;
  }
  fd_ = -1;
  return ok;
}

bool FileIO::Read(uint64_t offset, size_t size, void* out, std::string* error) {
  if (offset > size_ || size > size_ - offset) {
    *error = "read of " + std::to_string(size) + " bytes at offset " + std::to_string(offset) +
             " beyond the end of the file (" + std::to_string(size_) + " bytes)";
    return false;
  }
  if (offset + size > append_start_ && !FlushAppend(error)) return false;
  uint8_t* dst = static_cast<uint8_t*>(out);
  if (offset >= window_pos_ && offset + size <= window_pos_ + window_.size()) {
    std::memcpy(dst, window_.data() + (offset - window_pos_), size);
    return true;
  }
  if (size >= kWindow / 2) {
    size_t done = 0;
    while (done < size) {
      ssize_t r = ::pread(fd_, dst + done, size - done, static_cast<off_t>(offset + done));
      if (r <= 0) {
        *error = r < 0 ? Errno() : "unexpected end of file";
        return false;
      }
      done += static_cast<size_t>(r);
      bytes_read_ += static_cast<uint64_t>(r);
    }
    return true;
  }
  const size_t want = static_cast<size_t>(std::min<uint64_t>(kWindow, size_ - offset));
  window_.resize(want);
  size_t got = 0;
  while (got < want) {
    ssize_t r = ::pread(fd_, window_.data() + got, want - got, static_cast<off_t>(offset + got));
    if (r < 0) {
      window_.clear();
      *error = Errno();
      return false;
    }
    if (r == 0) break;
    got += static_cast<size_t>(r);
    bytes_read_ += static_cast<uint64_t>(r);
  }
  window_.resize(got);
  window_pos_ = offset;
  if (got < size) {
    *error = "unexpected end of file";
    return false;
  }
  std::memcpy(dst, window_.data(), size);
  return true;
}

uint8_t* FileIO::Pending(uint64_t offset, size_t size) {
  if (offset >= append_start_ && offset + size <= append_start_ + append_.size()) {
    return append_.data() + (offset - append_start_);
  }
  return nullptr;
}

bool FileIO::Write(uint64_t offset, const void* data, size_t size, std::string* error) {
  if (uint8_t* p = Pending(offset, size)) {
    std::memcpy(p, data, size);
    return true;
  }
  if (offset + size > append_start_ && !FlushAppend(error)) return false;
  const uint8_t* src = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    ssize_t w = ::pwrite(fd_, src + done, size - done, static_cast<off_t>(offset + done));
    if (w <= 0) {
      *error = w < 0 ? Errno() : "short write";
      return false;
    }
    done += static_cast<size_t>(w);
  }
  // Keep the read window true.
  if (offset < window_pos_ + window_.size() && offset + size > window_pos_) window_.clear();
  size_ = std::max<uint64_t>(size_, offset + size);
  if (append_.empty()) append_start_ = size_;
  return true;
}

bool FileIO::Append(const void* data, size_t size, uint32_t* pos, std::string* error) {
  if (size_ + size > 0xffffffffull) {
    *error = "the file would exceed 4 GB, the limit of its 32-bit offsets";
    return false;
  }
  if (append_.empty()) append_start_ = size_;
  *pos = static_cast<uint32_t>(size_);
  const uint8_t* src = static_cast<const uint8_t*>(data);
  append_.insert(append_.end(), src, src + size);
  size_ += size;
  if (append_.size() >= kAppendLimit) return FlushAppend(error);
  return true;
}

bool FileIO::FlushAppend(std::string* error) {
  if (append_.empty()) return true;
  size_t done = 0;
  while (done < append_.size()) {
    ssize_t w = ::pwrite(fd_, append_.data() + done, append_.size() - done,
                         static_cast<off_t>(append_start_ + done));
    if (w <= 0) {
      *error = w < 0 ? Errno() : "short write";
      return false;
    }
    done += static_cast<size_t>(w);
  }
  if (append_start_ < window_pos_ + window_.size()) window_.clear();
  append_.clear();
  append_start_ = size_;
  return true;
}

bool FileIO::WriteAscending(size_t count, size_t size,
                            const std::function<uint64_t(size_t)>& offset,
                            const std::function<void(size_t, uint8_t*)>& render,
                            std::string* error) {
  // Gaps up to this size are read and written back unchanged; spans stay
  // below a few megabytes.
  constexpr uint64_t kGap = 4096, kSpan = 4u << 20;
  std::vector<uint8_t> piece(size), span;
  for (size_t i = 0; i < count;) {
    const uint64_t start = offset(i);
    if (uint8_t* p = Pending(start, size)) {
      render(i, p);
      ++i;
      continue;
    }
    size_t j = i + 1;
    uint64_t end = start + size;
    while (j < count) {
      const uint64_t at = offset(j);
      if (at < end || at - end > kGap || at + size - start > kSpan || at + size > append_start_)
        break;
      end = at + size;
      ++j;
    }
    if (j == i + 1) {
      render(i, piece.data());
      if (!Write(start, piece.data(), size, error)) return false;
      ++i;
      continue;
    }
    span.resize(static_cast<size_t>(end - start));
    if (!Read(start, span.size(), span.data(), error)) return false;
    for (size_t k = i; k < j; ++k) render(k, span.data() + (offset(k) - start));
    if (!Write(start, span.data(), span.size(), error)) return false;
    i = j;
  }
  return true;
}

uint64_t BytesRead(const Ehfa_File* file) { return file->io.bytes_read(); }

// ---- NameStore -------------------------------------------------------------

const char* NameStore::Intern(std::string_view text) {
  if (text.size() > 255) text = text.substr(0, 255);
  if (text.empty()) return "";
  const size_t slot = std::hash<std::string_view>()(text) % (sizeof recent_ / sizeof recent_[0]);
  Recent& r = recent_[slot];
  if (r.text && r.len == text.size() && std::memcmp(r.text, text.data(), text.size()) == 0)
    return r.text;
  if (capacity_ - used_ < text.size() + 1) {
    constexpr size_t kPiece = 64 * 1024;
    pieces_.emplace_back(new char[kPiece]);
    used_ = 0;
    capacity_ = kPiece;
  }
  char* at = pieces_.back().get() + used_;
  std::memcpy(at, text.data(), text.size());
  at[text.size()] = '\0';
  used_ += text.size() + 1;
  r.text = at;
  r.len = static_cast<uint8_t>(text.size());
  return at;
}

}  // namespace hfa
}  // namespace kzdv

using namespace kzdv::hfa;

// ---- the tree ---------------------------------------------------------------

bool Ehfa_File::InitNew(std::string* error) {
  dict = kzdv::mif::ParseDictionary(kBaseDictionary, sizeof kBaseDictionary - 1, error);
  if (!dict) return false;
  uint8_t head[38] = {};
  std::memcpy(head, kTag, 16);
  StoreLe32(head + 16, 20);
  header_pos = 20;
  uint32_t pos;
  if (!io.Append(head, sizeof head, &pos, error)) return false;
  nodes.emplace_back();
  root = current = &nodes.back();
  SetName(root, "root");
  SetType(root, "root");
  root->mtime = 0;
  uint8_t blank[kEntryHeaderSize] = {};
  if (!io.Append(blank, sizeof blank, &root->pos, error)) return false;
  MarkDirty(root);
  kzdv::mif::SetChanged(dict.get(), true);  // written by the first flush
  return Flush(true, error);
}

// Reads the entry header at `pos` into a new node (its links into *next and
// *child). Every entry is read once; a link to an entry already seen (a
// cycle or a shared child) or out of the file is an error. Entries are 128
// bytes and never overlap, so one bit per 64 bytes of file tells them apart.
static Node* ReadEntry(Ehfa_File* f, uint32_t pos, Node* parent, uint32_t* next, uint32_t* child,
                       std::string* error) {
  if (pos < 20 || static_cast<uint64_t>(pos) + kEntryUsed > f->io.size()) {
    *error = "entry offset " + std::to_string(pos) + " lies outside the file" +
             (parent ? " (a child of " + f->PathOf(parent) + ")" : " (the root)");
    return nullptr;
  }
  const size_t word_index = (pos >> 6) / 64;
  if (word_index >= f->seen.size()) f->seen.resize(word_index + 1, 0);
  uint64_t& word = f->seen[word_index];
  const uint64_t bit = uint64_t{1} << ((pos >> 6) % 64);
  if (word & bit) {
    *error = "entry at offset " + std::to_string(pos) +
             " is linked twice or overlaps another entry" +
             (parent ? " (under " + f->PathOf(parent) + "): a cycle or a shared entry" : "");
    return nullptr;
  }
  word |= bit;
  uint8_t h[kEntryUsed];
  if (!f->io.Read(pos, sizeof h, h, error)) return nullptr;
  Node* n;
  if (!f->free_nodes.empty()) {
    n = f->free_nodes.back();
    f->free_nodes.pop_back();
  } else {
    f->nodes.emplace_back();
    n = &f->nodes.back();
  }
  n->pos = pos;
  *next = LoadLe32(h);
  *child = LoadLe32(h + 12);
  n->data_pos = LoadLe32(h + 16);
  n->data_size = LoadLe32(h + 20);
  // A field filled to its end without a terminating zero is kept whole
  // here (a rewrite of the header stores it cut by one byte).
  f->SetName(n, FixedText(h + 24, kNameSize), kNameSize);
  f->SetType(n, FixedText(h + 88, kTypeSize), kTypeSize);
  n->mtime = LoadLe32(h + 120);
  return n;
}

// Reads the children of `parent` (at `depth` below the root), starting with
// the entry at `first`, and their descendants down to the second level;
// deeper families are marked to be read on first use.
static bool ReadFamily(Ehfa_File* f, Node* parent, uint32_t first, int depth, std::string* error) {
  // Pending links: (entry position, parent, depth of the parent). Children
  // are taken before the sibling that was pushed earlier.
  struct Pending {
    uint32_t pos;
    Node* parent;
    int depth;
  };
  std::vector<Pending> stack{{first, parent, depth}};
  while (!stack.empty()) {
    const Pending p = stack.back();
    stack.pop_back();
    if (p.pos == 0) continue;
    uint32_t next = 0, child = 0;
    Node* n = ReadEntry(f, p.pos, p.parent, &next, &child, error);
    if (!n) return false;
    n->parent = p.parent;
    n->prev = p.parent->last;
    if (p.parent->last) {
      p.parent->last->next = n;
    } else {
      p.parent->child = n;
    }
    p.parent->last = n;
    ++p.parent->children;
    stack.push_back({next, p.parent, p.depth});
    if (child != 0 && p.depth + 1 >= 2) {
      n->deferred = 1;
    } else {
      stack.push_back({child, n, p.depth + 1});
    }
  }
  return true;
}

bool Ehfa_File::Load(std::string* error) {
  uint8_t head[20];
  if (io.size() < 20 || !io.Read(0, 20, head, error) || std::memcmp(head, kTag, 16) != 0) {
    *error = "not a hierarchical file (no EHFA_HEADER_TAG)";
    return false;
  }
  header_pos = LoadLe32(head + 16);
  uint8_t rec[18];
  if (!io.Read(header_pos, sizeof rec, rec, error)) {
    *error = "file header: " + *error;
    return false;
  }
  version = LoadLe32(rec);
  const uint32_t root_pos = LoadLe32(rec + 8);
  dict_pos = LoadLe32(rec + 14);

  // Dictionary text: up to its terminating zero (or the end of the file).
  if (dict_pos >= io.size()) {
    *error = "dictionary offset " + std::to_string(dict_pos) + " beyond the end of the file";
    return false;
  }
  std::string text;
  for (uint64_t at = dict_pos; at < io.size();) {
    char chunk[4096];
    const size_t n = static_cast<size_t>(std::min<uint64_t>(sizeof chunk, io.size() - at));
    if (!io.Read(at, n, chunk, error)) return false;
    const void* zero = std::memchr(chunk, 0, n);
    const size_t take = zero ? static_cast<size_t>(static_cast<const char*>(zero) - chunk) : n;
    text.append(chunk, take);
    if (zero) break;
    at += n;
  }
  dict = kzdv::mif::ParseDictionary(text.data(), text.size(), error);
  if (!dict) return false;

  // Entry headers in file order: an entry, its children, then its next
  // sibling, which is the order writers lay them out, so the reads run
  // forward through the read window. Families below the second level (the
  // image points of a block's ground points: most of a large block's
  // entries) are read on first use, not here.
  seen.assign(static_cast<size_t>((io.size() >> 6) / 64 + 1), 0);
  uint32_t root_next = 0, root_child = 0;
  root = current = ReadEntry(this, root_pos, nullptr, &root_next, &root_child, error);
  if (!root) return false;
  return ReadFamily(this, root, root_child, 0, error);
}

bool Ehfa_File::EnsureChildren(Node* n) {
  if (!n || !n->deferred) return true;
  n->deferred = 0;
  std::string error;
  uint8_t h[16];
  int depth = 0;
  for (const Node* up = n; up != root && up; up = up->parent) ++depth;
  if (!io.Read(n->pos, sizeof h, h, &error) ||
      !ReadFamily(this, n, LoadLe32(h + 12), depth, &error)) {
    if (family_error.empty()) family_error = "the children of " + PathOf(n) + ": " + error;
    return false;
  }
  families.push_back(n);
  return true;
}

void Ehfa_File::ReleaseFamilies() {
  constexpr size_t kKept = 64;
  if (hold_families || families.size() <= 2 * kKept) return;
  while (families.size() > kKept) {
    Node* f = families.front();
    families.pop_front();
    bool releasable = f->alive && !f->dirty && !f->deferred && indexes.count(f) == 0;
    for (Node* c = f->child; releasable && c; c = c->next)
      releasable = !c->dirty && !c->child && c != current;
    if (!releasable) continue;
    for (Node* c = f->child; c;) {
      Node* next = c->next;
      seen[(c->pos >> 6) / 64] &= ~(uint64_t{1} << ((c->pos >> 6) % 64));
      *c = Node();
      free_nodes.push_back(c);
      c = next;
    }
    f->child = f->last = nullptr;
    f->children = 0;
    f->deferred = 1;
  }
}

Node* Ehfa_File::FindChild(Node* parent, std::string_view name) const {
  if (!parent) return nullptr;
  const_cast<Ehfa_File*>(this)->EnsureChildren(parent);
  // A few lookups scan; many lookups in a large family pay for an index.
  if (parent->children < 16) {
    for (Node* c = parent->child; c; c = c->next) {
      if (c->name() == name) return c;
    }
    return nullptr;
  }
  ChildIndex& index = indexes[parent];
  if (!index.map && ++index.lookups <= 8) {
    for (Node* c = parent->child; c; c = c->next) {
      if (c->name() == name) return c;
    }
    return nullptr;
  }
  if (!index.map) {
    index.map.reset(new std::unordered_map<std::string_view, Node*>);
    index.map->reserve(static_cast<size_t>(parent->children));
    for (Node* c = parent->child; c; c = c->next) index.map->emplace(c->name(), c);
  }
  auto it = index.map->find(name);
  return it == index.map->end() ? nullptr : it->second;
}

Node* Ehfa_File::Resolve(const std::string& path) const {
  Node* n = root;
  size_t i = 0;
  while (i <= path.size() && n) {
    const size_t j = std::min(path.find(':', i), path.size());
    if (j > i) n = FindChild(n, path.substr(i, j - i));
    i = j + 1;
  }
  return n;
}

std::string Ehfa_File::PathOf(const Node* n) const {
  if (!n || n == root) return ":";
  std::vector<const Node*> chain;
  for (; n && n != root; n = n->parent) chain.push_back(n);
  std::string p;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    p += ':';
    p += (*it)->name();
  }
  return p;
}

Node* Ehfa_File::NewNode(std::string_view name, std::string_view type) {
  nodes.emplace_back();
  Node* n = &nodes.back();
  SetName(n, name);
  SetType(n, type);
  n->mtime = static_cast<uint32_t>(std::time(nullptr));
  return n;
}

void Ehfa_File::SetName(Node* n, std::string_view name, size_t limit) {
  name = name.substr(0, std::min(name.size(), limit));
  n->name_text = names.Intern(name);
  n->name_len = static_cast<uint8_t>(name.size());
}

void Ehfa_File::SetType(Node* n, std::string_view type, size_t limit) {
  type = type.substr(0, std::min(type.size(), limit));
  n->type_text = names.Intern(type);
  n->type_len = static_cast<uint8_t>(type.size());
}

void Ehfa_File::MarkDirty(Node* n) {
  // A header written anew links the first child: the children must be known.
  EnsureChildren(n);
  if (n && !n->dirty) {
    n->dirty = true;
    dirty.push_back(n);
  }
}

static void IndexAdd(Ehfa_File* f, Node* parent, Node* n, bool at_end) {
  auto found = f->indexes.find(parent);
  if (found == f->indexes.end() || !found->second.map) return;
  auto& map = *found->second.map;
  auto it = map.find(n->name());
  if (it == map.end()) {
    map.emplace(n->name(), n);
  } else if (!at_end) {
    found->second.map.reset();  // the new node may now be the first of that name
  }
}

void Ehfa_File::LinkFirst(Node* parent, Node* n) {
  EnsureChildren(parent);
  n->parent = parent;
  n->prev = nullptr;
  n->next = parent->child;
  if (parent->child) {
    parent->child->prev = n;
    MarkDirty(parent->child);
  } else {
    parent->last = n;
  }
  parent->child = n;
  ++parent->children;
  IndexAdd(this, parent, n, parent->children == 1);
  MarkDirty(parent);
  MarkDirty(n);
}

void Ehfa_File::LinkLast(Node* parent, Node* n) {
  EnsureChildren(parent);
  if (!parent->last) {
    LinkFirst(parent, n);
    return;
  }
  LinkAfter(parent->last, n);
}

void Ehfa_File::LinkAfter(Node* prev, Node* n) {
  Node* parent = prev->parent;
  n->parent = parent;
  n->prev = prev;
  n->next = prev->next;
  if (prev->next) {
    prev->next->prev = n;
    MarkDirty(prev->next);
  } else {
    parent->last = n;
  }
  prev->next = n;
  ++parent->children;
  IndexAdd(this, parent, n, n->next == nullptr);
  MarkDirty(prev);
  MarkDirty(n);
}

void Ehfa_File::Unlink(Node* n) {
  Node* parent = n->parent;
  if (n->prev) {
    n->prev->next = n->next;
    MarkDirty(n->prev);
  } else {
    parent->child = n->next;
    MarkDirty(parent);
  }
  if (n->next) {
    n->next->prev = n->prev;
    MarkDirty(n->next);
  } else {
    parent->last = n->prev;
  }
  --parent->children;
  indexes.erase(parent);
  n->alive = false;
  n->parent = n->prev = n->next = nullptr;
}

bool Ehfa_File::SetData(Node* n, std::vector<uint8_t>* bytes, const kzdv::mif::DesignImpl* design,
                        std::string* error) {
  const uint32_t size = static_cast<uint32_t>(bytes->size());
  uint32_t pos;
  if (n->data_pos != 0 && size <= n->data_size) {
    pos = n->data_pos;
  } else {
    pos = static_cast<uint32_t>(io.size());
  }
  if (design && !bytes->empty() &&
      !kzdv::mif::Rebase(*design, bytes->data(), bytes->size(), pos, error)) {
    return false;
  }
  if (pos == n->data_pos) {
    if (!bytes->empty() && !io.Write(pos, bytes->data(), bytes->size(), error)) return false;
  } else if (!io.Append(bytes->data(), bytes->size(), &pos, error)) {
    return false;
  }
  n->data_pos = size ? pos : 0;
  n->data_size = size;
  n->mtime = static_cast<uint32_t>(std::time(nullptr));
  MarkDirty(n);
  return true;
}

bool Ehfa_File::ReadData(const Node* n, std::vector<uint8_t>* bytes, std::string* error) {
  bytes->clear();
  if (n->data_size == 0) return true;
  if (n->data_pos == 0 || static_cast<uint64_t>(n->data_pos) + n->data_size > io.size()) {
    *error = "the data of " + PathOf(n) + " (" + std::to_string(n->data_size) +
             " bytes at offset " + std::to_string(n->data_pos) + ") lie beyond the end of the file";
    return false;
  }
  bytes->resize(n->data_size);
  return io.Read(n->data_pos, n->data_size, bytes->data(), error);
}

bool Ehfa_File::Flush(bool force, std::string* error) {
  if (!writable || (bulk_depth > 0 && !force)) return true;
  if (kzdv::mif::Changed(*dict)) {
    const std::string text = kzdv::mif::DictionaryText(*dict);
    uint32_t pos;
    if (!io.Append(text.c_str(), text.size() + 1, &pos, error)) return false;
    dict_pos = pos;
    kzdv::mif::SetChanged(dict.get(), false);
    uint8_t rec[18] = {};
    StoreLe32(rec, version);
    StoreLe32(rec + 4, 0);
    StoreLe32(rec + 8, root->pos);
    rec[12] = static_cast<uint8_t>(kEntryHeaderSize);
    rec[13] = 0;
    StoreLe32(rec + 14, dict_pos);
    if (!io.Write(header_pos, rec, sizeof rec, error)) return false;
  }
  std::sort(dirty.begin(), dirty.end(),
            [](const Node* a, const Node* b) { return a->pos < b->pos; });
  std::vector<Node*> live;
  live.reserve(dirty.size());
  for (Node* n : dirty) {
    n->dirty = false;
    if (n->alive) live.push_back(n);
  }
  auto render = [&](size_t i, uint8_t* h) {
    const Node* n = live[i];
    std::memset(h, 0, kEntryUsed);
    StoreLe32(h, n->next ? n->next->pos : 0);
    StoreLe32(h + 4, n->prev ? n->prev->pos : 0);
    StoreLe32(h + 8, n->parent ? n->parent->pos : 0);
    StoreLe32(h + 12, n->child ? n->child->pos : 0);
    StoreLe32(h + 16, n->data_pos);
    StoreLe32(h + 20, n->data_size);
    std::memcpy(h + 24, n->name_text, std::min<size_t>(n->name_len, kNameSize - 1));
    std::memcpy(h + 88, n->type_text, std::min<size_t>(n->type_len, kTypeSize - 1));
    StoreLe32(h + 120, n->mtime);
  };
  if (!io.WriteAscending(
          live.size(), kEntryUsed, [&](size_t i) -> uint64_t { return live[i]->pos; }, render,
          error))
    return false;
  dirty.clear();
  return io.FlushAppend(error);
}
