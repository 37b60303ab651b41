// Files through stdio, with wide names converted to UTF-8 for the system.
#include "efio.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

struct Efio_File {
  FILE* stream;
  std::wstring name;
};

Efio_File* efio_Open(const Etxt_Char* name, const char* mode, Eerr_ErrorReport** err) KZDV_NOEXCEPT
    try {
  kzdv::ErrorFrame frame(L"efio_Open", err);
  EERR_FAIL_IF(!name || !*name, frame, nullptr, L"No file name given");
  EERR_FAIL_IF(!mode || !*mode, frame, nullptr, L"No open mode given for %s", name);
  FILE* f = std::fopen(kzdv::ToUtf8(name).c_str(), mode);
  EERR_FAIL_IF(!f, frame, nullptr, L"Cannot open %s: %hs", name, std::strerror(errno));
  auto* file = new (std::nothrow) Efio_File{f, name};
  if (!file) {
    std::fclose(f);
    EERR_FAIL(frame, nullptr, L"Out of memory");
  }
  return file;
}
EERR_BOUNDARY(err, nullptr)

Emsc_Boolean efio_Close(Efio_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_Close", err);
  if (!file) return EMSC_TRUE;
  const bool write_failed = std::ferror(file->stream) != 0;
  const bool close_failed = std::fclose(file->stream) != 0;
  std::wstring name = std::move(file->name);
  delete file;
  EERR_FAIL_IF(write_failed || close_failed, frame, EMSC_FALSE, L"Error writing or closing %s",
               name.c_str());
  return EMSC_TRUE;
}
EERR_BOUNDARY(err, EMSC_FALSE)

int efio_Fprintf(Efio_File* file, Eerr_ErrorReport** err, const Etxt_Char* format,
                 ...) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_Fprintf", err);
  EERR_FAIL_IF(!file || !format, frame, -1, L"Null file or format");
  va_list ap;
  va_start(ap, format);
  std::string text = kzdv::ToUtf8(kzdv::FormatV(format, ap));
  va_end(ap);
  size_t n = std::fwrite(text.data(), 1, text.size(), file->stream);
  EERR_FAIL_IF(n != text.size(), frame, -1, L"Cannot write to %s: %hs", file->name.c_str(),
               std::strerror(errno));
  return static_cast<int>(n);
}
EERR_BOUNDARY(err, -1)

Etxt_Char* efio_Fgets(Etxt_Char* buffer, int limit, Efio_File* file,
                      Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  kzdv::ErrorFrame frame(L"efio_Fgets", err);
  EERR_FAIL_IF(!buffer || limit < 2 || !file, frame, nullptr, L"Bad arguments");
  // Read UTF-8 bytes up to a newline; count decoded characters against the limit.
  std::string bytes;
  int chars = 0;
  int c;
  while (chars < limit - 1 && (c = std::fgetc(file->stream)) != EOF) {
    bytes += static_cast<char>(c);
    // Pull in the continuation bytes of a multi-byte sequence.
    unsigned char lead = static_cast<unsigned char>(c);
    int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    for (int k = 0; k < extra; ++k) {
      int d = std::fgetc(file->stream);
      if (d == EOF) break;
      if ((d & 0xC0) != 0x80) {
        std::ungetc(d, file->stream);
        break;
      }
      bytes += static_cast<char>(d);
    }
    ++chars;
    if (c == '\n') break;
  }
  EERR_FAIL_IF(std::ferror(file->stream), frame, nullptr, L"Cannot read %s", file->name.c_str());
  if (bytes.empty()) return nullptr;  // end of file
  std::wstring w = kzdv::FromUtf8(bytes);
  if (w.size() > static_cast<size_t>(limit - 1)) w.resize(limit - 1);
  std::wmemcpy(buffer, w.data(), w.size());
  buffer[w.size()] = L'\0';
  return buffer;
}
EERR_BOUNDARY(err, nullptr)

int efio_Fscanf(Efio_File* file, const char* format, ...) KZDV_NOEXCEPT {
  if (!file || !format) return EOF;
  va_list ap;
  va_start(ap, format);
  int n = std::vfscanf(file->stream, format, ap);
  va_end(ap);
  return n;
}

FILE* efio_Stream(Efio_File* file) KZDV_NOEXCEPT { return file ? file->stream : nullptr; }
