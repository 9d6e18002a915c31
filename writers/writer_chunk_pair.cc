#include "writers/writer_chunk_pair.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace qopci {

WriterChunkPair::~WriterChunkPair() {
  writer_ = nullptr;
  chunk_ = nullptr;
}

bool WriterChunkPair::Process() {
  if (!writer_ || !chunk_) {
    errno = EINVAL;
    return false;
  }
  if (!writer_->WriteChunk(chunk_)) return false;
  chunk_ = nullptr;  // the writer destroyed it
  return true;
}

void WriterChunkPair::CreateError(char* buf, size_t size) {
  if (!buf || size == 0) return;
  unsigned long code = static_cast<unsigned long>(errno);
  const char* name = writer_ && writer_->GetFileName() ? writer_->GetFileName() : "";
  snprintf(buf, size,
           "WriterChunkPair::CreateError() : Can't insert chunk to file [ %s ] (Error code %lu)",
           name, code);
}

uint64_t WriterChunkPair::GetMaxPending() {
  return MaxPendingChunks(AvailableMemory(), chunk_ ? chunk_->GetCapacity() : 1);
}

void WriterChunkPair::Release() { delete this; }

void WriterChunkPair::ReleaseAll() {
  delete chunk_;
  chunk_ = nullptr;
  Release();
}

bool SubmitChunk(BATWriter* writer, BATChunk* chunk, bool throttle) {
  auto* item = new WriterChunkPair(writer, chunk);
  if (ConcurrentQueue* queue = writer->GetQueue()) return queue->InsertDataItem(item, throttle);
  bool ok = writer->WriteChunk(chunk);
  int err = errno;
  item->Release();
  errno = err;
  return ok;
}

uint64_t MemAvailableFrom(const char* meminfo_path) {
  FILE* f = fopen(meminfo_path, "r");
  if (!f) return 0;
  char line[256];
  uint64_t bytes = 0;
  while (fgets(line, sizeof(line), f)) {
    uint64_t kib;
    if (sscanf(line, "MemAvailable: %" SCNu64 " kB", &kib) == 1) {
      bytes = kib * 1024;
      break;
    }
  }
  fclose(f);
  return bytes;
}

uint64_t AvailableMemory() {
  int err = errno;  // keep a failed write's errno for its error text
  uint64_t bytes = MemAvailableFrom("/proc/meminfo");
  if (bytes == 0) {
    struct sysinfo si;
    if (sysinfo(&si) == 0) bytes = static_cast<uint64_t>(si.freeram) * si.mem_unit;
  }
  errno = err;
  return bytes ? bytes : kUnknownAvailableMemory;
}

uint64_t MaxPendingChunks(uint64_t available, uint64_t capacity) {
  return available / (capacity ? capacity : 1) / 100;
}

}  // namespace qopci
