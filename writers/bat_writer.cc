#include "writers/bat_writer.h"

namespace qopci {

BATWriter::BATWriter(const char* file_name, uint64_t existing_count, bool keep_existing)
    : file_name_(file_name), existing_count_(existing_count), keep_existing_(keep_existing) {}

BATWriter::~BATWriter() = default;

const char* BATWriter::GetHeapFileName() { return nullptr; }

void BATWriter::SetQueue(ConcurrentQueue* queue) { queue_ = queue; }

void BATWriter::SetCompressed(bool compressed) { compressed_ = compressed; }

void BATWriter::RegisterIn(std::list<BATWriter*>& list) { list.push_back(this); }

bool BATWriter::GetKeepExisting() { return keep_existing_; }

}  // namespace qopci
