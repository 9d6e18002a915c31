#include "tools/dict_store_prep.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "corvid/farm.h"
#include "dictionaries/dict_store.h"
#include "tools/dict_target.h"
#include "tools/error_text.h"

namespace qopci {

namespace {

// The dictionary size recorded beside the store, or -1 when there is none to trust.
int64_t ReadGuard(const std::string& dir) {
  std::ifstream in(StoreGuardFile(dir));
  int64_t n = -1;
  if (!(in >> n)) return -1;
  return n;
}

// Makes the store hold exactly the committed dictionary of t (entries with codes 1..n).
Status Repair(DictStore* store, const TargetColumn& t) {
  const int64_t committed = t.info.dict.entries;
  std::string error;
  std::vector<std::string> stale;
  uint64_t kept = 0;
  bool ok = DictStoreForEach(
      store,
      [&](std::string_view key, uint32_t code) {
        if (code == 0 || static_cast<int64_t>(code) > committed)
          stale.emplace_back(key);
        else
          ++kept;
        return true;
      },
      &error);
  for (size_t i = 0; ok && i < stale.size(); ++i) ok = DictStoreDelete(store, stale[i], &error);
  if (!ok) return Status::Error(error);
  if (static_cast<int64_t>(kept) == committed) return Status::OK();
  std::vector<DictEntry> entries;
  Status s = ReadDictionary(t.dict_keys, t.dict_codes, &entries);
  for (size_t i = 0; s.ok() && i < entries.size(); ++i)
    if (!entries[i].nil &&
        !DictStorePut(store, entries[i].key, static_cast<uint32_t>(entries[i].code), &error))
      s = Status::Error(error);
  return s;
}

// Readies the store at dir for column t; an error says why it cannot be used.
Status Ready(const std::string& dir, const TargetColumn& t) {
  std::error_code ec;
  const bool exists = std::filesystem::exists(dir, ec);
  std::string error;
  if (!exists) {
    const std::filesystem::path parent = std::filesystem::path(dir).parent_path();
    if (!parent.empty() && !std::filesystem::is_directory(parent, ec) &&
        !std::filesystem::create_directories(parent, ec))
      return Status::Error("cannot make " + parent.string() + ": " + ec.message());
    if (!CreateDictStore(dir.c_str(), &error))
      return Status::Error("cannot create a store at " + dir + ": " + error);
  }
  DictStore store;
  if (!store.Open(dir.c_str())) {
    store.Close();
    return Status::Error(dir + " holds no store that can be opened (another program's files, "
                         "or a store in use)");
  }
  // A guard that matches the committed dictionary vouches for the store; anything else
  // (none: a new store, or an export that did not commit) is checked entry by entry.
  Status s = Status::OK();
  if (ReadGuard(dir) != t.info.dict.entries || t.replaced != 0) s = Repair(&store, t);
  store.Close();
  if (!s.ok()) return Status::Error("cannot repair the store at " + dir + ": " + s.message());
  // From here until the commit the store may gain entries the farm does not hold.
  if (::unlink(StoreGuardFile(dir).c_str()) != 0 && errno != ENOENT)
    return Status::Error("cannot remove " + StoreGuardFile(dir) + ": " + SystemText(errno));
  return Status::OK();
}

}  // namespace

std::string StoreDir(const std::string& farm, const Manifest& manifest,
                     const ManifestColumn& column) {
  if (!column.store_dir.empty())
    return std::filesystem::absolute(column.store_dir).lexically_normal().string();
  return farm + "/stores/" + TargetName(manifest, column);
}

std::string StoreGuardFile(const std::string& store_dir) {
  std::string dir = store_dir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir + ".entries";
}

void PrepareStores(const std::string& farm, const Manifest& manifest,
                   std::vector<TargetColumn>* targets, std::ostream& err) {
  for (TargetColumn& t : *targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    if (!c.store) continue;
    const std::string dir = StoreDir(farm, manifest, c);
    Status s = Ready(dir, t);
    if (s.ok()) {
      t.info.dict.store_dir = dir;
      continue;
    }
    t.info.dict.store_dir.clear();
    t.store_note = s.message();
    err << "qopci: warning: column " << TargetName(manifest, c) << ": store not used: "
        << s.message() << "; the column is coded in memory from its dictionary files\n";
  }
}

void FinishStores(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                  std::ostream& err) {
  for (const TargetColumn& t : targets) {
    if (t.info.dict.store_dir.empty()) continue;
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    const bat keys = CVDbat_lookup(DictKeysName(TargetName(manifest, c)).c_str());
    const BAT* b = keys != 0 ? BBPgetdesc(keys) : nullptr;
    const std::string guard = StoreGuardFile(t.info.dict.store_dir);
    std::ofstream out(guard, std::ios::trunc);
    if (b != nullptr) out << b->batCount << "\n";
    out.close();
    if (b == nullptr || !out)
      err << "qopci: warning: column " << TargetName(manifest, c) << ": cannot write " << guard
          << "; the next copy checks the store entry by entry\n";
  }
}

}  // namespace qopci
