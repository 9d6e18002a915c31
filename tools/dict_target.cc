#include "tools/dict_target.h"

#include <cstring>
#include <set>

#include "corvid/farm.h"

namespace qopci {

namespace {

Status FileOf(bat id, const char* ext, std::string* out) {
  char path[4096];
  if (CVDbat_filename(id, ext, path, sizeof path) == nullptr)
    return Status::Error("no " + std::string(ext) + " file name for BAT " + std::to_string(id));
  *out = path;
  return Status::OK();
}

// The files of the two dictionary BATs, and what the keys' heap keeps.
Status DescribeDictionary(bat keys, bat codes, DictInfo* d) {
  const BAT* k = BBPgetdesc(keys);
  Status s = FileOf(keys, "tail", &d->key_file);
  if (s.ok()) s = FileOf(codes, "tail", &d->code_file);
  if (s.ok() && k->ttype == TYPE_str) {
    s = FileOf(keys, "theap", &d->key_heap);
    d->key_width = k->twidth;
    d->heap_size = d->entries > 0 && k->tvheap != nullptr ? static_cast<int64_t>(k->tvheap->free) : 0;
  }
  return s;
}

// A value of a fixed-width key type as a 64-bit integer (doubles by their bits).
int64_t KeyBits(const unsigned char* p, int width) {
  switch (width) {
    case 1: return static_cast<int8_t>(*p);
    case 2: { int16_t v; std::memcpy(&v, p, 2); return v; }
    case 4: { int32_t v; std::memcpy(&v, p, 4); return v; }
  }
  int64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

}  // namespace

Status FindDictionary(const std::string& name, TargetColumn* t) {
  t->dict_keys = CVDbat_lookup(DictKeysName(name).c_str());
  t->dict_codes = CVDbat_lookup(DictCodesName(name).c_str());
  if (t->dict_keys == 0 || t->dict_codes == 0)
    return Status::Error("column " + name + " is a dictionary column without its " +
                         (t->dict_keys == 0 ? DictKeysName(name) : DictCodesName(name)) +
                         "; use --replace to write it anew");
  const BAT* keys = BBPgetdesc(t->dict_keys);
  const BAT* codes = BBPgetdesc(t->dict_codes);
  if (keys->batCount != codes->batCount)
    return Status::Error("column " + name + ": its dictionary holds " +
                         std::to_string(keys->batCount) + " keys but " +
                         std::to_string(codes->batCount) + " codes");
  t->info.dict.entries = static_cast<int64_t>(keys->batCount);
  return DescribeDictionary(t->dict_keys, t->dict_codes, &t->info.dict);
}

Status MakeDictionary(const ManifestColumn& column, const std::string& name, TargetColumn* t) {
  const std::string keys_name = DictKeysName(name), codes_name = DictCodesName(name);
  // A column that was a dictionary before gives its dictionary up at the same commit.
  t->dict_keys_replaced = t->replaced != 0 ? CVDbat_lookup(keys_name.c_str()) : 0;
  t->dict_codes_replaced = t->replaced != 0 ? CVDbat_lookup(codes_name.c_str()) : 0;
  auto make = [](bat replaced, int type, const std::string& n, bat* out) {
    return FromKernel(replaced != 0 ? CVDbat_create_replacement(replaced, type, out)
                                    : CVDbat_create(type, n.c_str(), 0, out));
  };
  Status s = make(t->dict_keys_replaced, KeyAtomType(column), keys_name, &t->dict_keys);
  if (s.ok()) s = make(t->dict_codes_replaced, CodeAtomType(column), codes_name, &t->dict_codes);
  if (!s.ok()) return s;
  t->info.dict = DictInfo();
  return DescribeDictionary(t->dict_keys, t->dict_codes, &t->info.dict);
}

int64_t MaxDictionaryEntries(const ManifestColumn& column) {
  switch (CodeAtomType(column)) {
    case TYPE_bte: return 127;
    case TYPE_sht: return 32767;
  }
  return 2147483647;
}

Status CheckCodeLimits(const Manifest& manifest, const std::vector<TargetColumn>& targets,
                       const ResultData& data) {
  for (const TargetColumn& t : targets) {
    const ManifestColumn& c = manifest.columns[t.manifest_index];
    if (!c.dictionary || CodeAtomType(c) == TYPE_int) continue;
    const ResultColumn* rc = nullptr;
    for (const ResultColumn& r : data.columns)
      if (r.manifest_index == t.manifest_index) rc = &r;
    if (rc == nullptr || rc->width == 0) continue;
    std::set<int64_t> kept;
    if (t.info.dict.entries > 0) {
      BAT* keys = nullptr;
      Status s = LoadColumn(t.dict_keys, DictKeysName(TargetName(manifest, c)), &keys);
      if (!s.ok()) return s;
      for (BUN i = 0; i < keys->batCount; ++i)
        kept.insert(KeyBits(static_cast<const unsigned char*>(BUNtail(keys, i)), rc->width));
      BBPreleaseref(t.dict_keys);
    }
    const int64_t nil = KeyBits(static_cast<const unsigned char*>(ATOMnil(KeyAtomType(c))),
                                rc->width);
    std::set<int64_t> added;
    for (uint64_t i = 0; i < data.rows; ++i) {
      const int64_t v = KeyBits(rc->values.data() + i * rc->width, rc->width);
      if (v != nil && kept.count(v) == 0) added.insert(v);
    }
    const int64_t total = static_cast<int64_t>(kept.size() + added.size());
    const int64_t max = MaxDictionaryEntries(c);
    if (total > max)
      return Status::Error(
          "column " + TargetName(manifest, c) + ": its dictionary would hold " +
          std::to_string(total) + " entries (" + std::to_string(kept.size()) + " kept, " +
          std::to_string(added.size()) + " new), more than the " + std::to_string(max) +
          " that " + ColumnTypeName(c) + " codes can tell apart; nothing was written (use a " +
          "wider type, or leave out \"encoding\": \"dictionary\")");
  }
  return Status::OK();
}

Status ReadDictionary(bat keys_id, bat codes_id, std::vector<DictEntry>* out) {
  out->clear();
  BAT* keys = nullptr;
  BAT* codes = nullptr;
  Status s = LoadColumn(keys_id, CVDbat_name(keys_id) ? CVDbat_name(keys_id) : "dictionary", &keys);
  if (!s.ok()) return s;
  s = LoadColumn(codes_id, CVDbat_name(codes_id) ? CVDbat_name(codes_id) : "dictionary", &codes);
  if (!s.ok()) {
    BBPreleaseref(keys_id);
    return s;
  }
  const BUN n = std::min(keys->batCount, codes->batCount);
  char text[512];
  for (BUN i = 0; i < n; ++i) {
    DictEntry e;
    const void* k = BUNtail(keys, i);
    e.nil = ATOMcmp(keys->ttype, ATOMnil(keys->ttype), k) == 0;
    if (keys->ttype == TYPE_str) {
      e.key = static_cast<const char*>(k);
    } else {
      char* p = text;
      size_t len = sizeof text;
      if (ATOMformat(keys->ttype, k, &p, &len) >= 0) e.key = text;
    }
    e.code = KeyBits(static_cast<const unsigned char*>(BUNtail(codes, i)), codes->twidth);
    out->push_back(std::move(e));
  }
  BBPreleaseref(keys_id);
  BBPreleaseref(codes_id);
  return Status::OK();
}

}  // namespace qopci
