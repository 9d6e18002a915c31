// CIManager: carries one query result into the target column files.
//
// There is at most one, held in a global pointer: the first attribute call creates it, the
// attribute calls fill its registry, and one export drives it and destroys it. For each
// registered column it builds a result-column reader, a chunker and a writer, feeds the
// chunks to the work queue, and once every chunk is written rewrites the host's BAT
// descriptors and commits.
// Threading: everything runs on the host's calling thread under BBPlock, except the chunk
// writes, which run on the queue's workers.
#ifndef QOPCI_COPY_INTO_CI_MANAGER_H_
#define QOPCI_COPY_INTO_CI_MANAGER_H_

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "corvid/gdk.h"
#include "corvid/sql.h"

namespace qopci {

class BATWriter;
class ChunkerBase;
class ConcurrentQueue;
class InternalReader;

class CIManager {
 public:
  // One attribute value: an owned copy of raw bytes whose copies share the bytes and a
  // reference count.
  class ValSizePair {
   public:
    ValSizePair() = default;
    ValSizePair(const void* bytes, int32_t size);
    ValSizePair(const ValSizePair& other) { *this = other; }
    // Releases the old value, then shares the source's bytes.
    ValSizePair& operator=(const ValSizePair& other);
    virtual ~ValSizePair() { Release(); }

    const uint8_t* value() const { return value_; }
    int32_t size() const { return size_; }

   private:
    void Release();

    uint8_t* value_ = nullptr;
    int32_t size_ = 0;
    int32_t* refs_ = nullptr;  // shared by every copy
  };

  using AttrMap = std::map<int, ValSizePair>;
  using Registry = std::map<std::string, AttrMap>;
  using ColumnEntry = Registry::value_type;  // column name and its attributes

  // One copied column. Owns its chunker and writer; the name is a GDKstrdup copy.
  struct ColumnJob {
    ColumnJob(CIManager* manager, const char* name, ChunkerBase* chunker, BATWriter* writer);
    ColumnJob(const ColumnJob&) = delete;
    ColumnJob& operator=(const ColumnJob&) = delete;
    ~ColumnJob();

    CIManager* manager;
    char* name;
    ChunkerBase* chunker;       // null after a failed construction
    BATWriter* writer;          // the writer set; null after a failed construction
    std::list<bat> rewritten;   // BAT ids whose descriptors were rewritten
  };

  // A descriptor as it was before UpdateBBPWithGo rewrote it, put back when the export
  // fails before its commit took effect.
  struct SavedDescriptor {
    bat id;
    BAT desc;
    size_t heap_free, heap_size;  // of the string heap, when there is one
  };

  // The first construction in the process fills the factories' tables.
  CIManager();
  CIManager(const CIManager&) = delete;
  CIManager& operator=(const CIManager&) = delete;
  ~CIManager();

  // Stores (or replaces) attribute `attr` of `column`.
  void AddAttribute(const char* column, int attr, const void* bytes, int32_t size);

  // Copies every registered column of result `result_id`. True when all went well.
  bool ExecuteCopyInto(mvc* context, int result_id);
  // Copies one column; `column` is null for a generated column. Errors go to the error text.
  void CopyIntoOneColumn(res_col* column, BAT* order, ColumnEntry& entry);
  // Feeds every value of the reader through the chunker to the writer.
  void FeedColumn(InternalReader& reader, ChunkerBase& chunker, BATWriter& writer);
  // Closes the writers, rewrites the descriptors and commits. True when no error is recorded.
  bool UpdateBBP(logger* lg);
  // Rewrites the BAT descriptors of one column.
  void UpdateBBPWithGo(ColumnJob& job);
  // Puts every descriptor rewritten by this export back as it was, so that a failed export
  // leaves the host exactly at its previous commit.
  void RestoreDescriptors();

  // Attribute lookups: false (with the "GET_COL_ATTR" message recorded) when the attribute
  // is missing or of another size. `line` is the lookup site's diagnostic number.
  bool GetAttrInt(const AttrMap& attrs, int attr, int line, int* out);
  bool GetAttrLng(const AttrMap& attrs, int attr, int line, int64_t* out);
  bool GetAttrStr(const AttrMap& attrs, int attr, int line, const char** out);

  // Records "%s(): %s: %s" (place, current column, message) unless an error is recorded
  // already. Returns where a detail may be appended: behind the text, or a scratch area.
  char* Report(const char* place, const char* message);
  // Report with an empty message and a printf-formatted detail appended behind it.
  void ReportDetail(const char* place, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

  bool HasError() const { return error_ != nullptr; }
  const char* error() const { return error_; }  // null or the error buffer
  const std::list<std::unique_ptr<ColumnJob>>& jobs() const { return jobs_; }
  Registry& registry() { return registry_; }
  ConcurrentQueue* queue() { return queue_.get(); }

  // Index of the BBP entry whose physical name ends the file name (extension cut). As the
  // buffer pool has always answered, a name that matches nothing yields BBPsize() - 1, the
  // last entry; only a result below 1 (an empty pool) means not found.
  static int FindBATByFileName(const char* file_name);
  // The descriptor of the BBP entry of a writer's file (its id in *id), or null after
  // reporting "Didn't find matching BAT for file %s" at `place`.
  BAT* FindWriterBAT(const char* place, BATWriter* writer, bat* id);
  // False, with a report, when the writer's idea of the rows its file keeps contradicts
  // the BAT: an append must start behind exactly the BAT's rows, and a file written anew
  // must not be the file of a BAT that holds rows, or committed values would be lost.
  bool CheckWriterAgainstBAT(BATWriter* writer, const BAT* target);
  // Seeds the statistics of `description` with the last value of the BAT its writer
  // appends to, so that the column's flags cover old and new rows together.
  void SeedFromTarget(ChunkerBase* description, BATWriter* writer, bat id);

 private:
  // Where the current column's name is read from for reports.
  const char* column_name_ = "";
  mvc* context_ = nullptr;
  Registry registry_;
  std::list<std::unique_ptr<ColumnJob>> jobs_;
  std::list<SavedDescriptor> saved_;  // descriptors as they were before this export
  std::unique_ptr<ConcurrentQueue> queue_;
  const char* error_ = nullptr;  // null until the first error; then the error buffer
};

// Size of the shared error buffer; longer reports are cut.
constexpr size_t kErrorBufferSize = 4096;

// Calls the host's refresh callback for a rewritten BAT, when one is registered.
void RefreshColumn(bat id);

}  // namespace qopci

#endif  // QOPCI_COPY_INTO_CI_MANAGER_H_
