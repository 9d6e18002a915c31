// One commit under way: the catalog it is about to write and every file it has written,
// linked or renamed so far, so that a failure at any step can put the farm back exactly as
// the previous commit left it. commit.cc drives the steps; commit_plan.cc holds them.
// Threading: as the buffer pool.
#ifndef CORVID_SRC_COMMIT_H_
#define CORVID_SRC_COMMIT_H_

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "catalog.h"
#include "internal.h"

namespace corvid {

class SumsHasher;  // sums_io.cc
struct SumsHasherDeleter {
  void operator()(SumsHasher* h) const;  // waits for its helper threads first
};

struct CommitPlan {
  // A column file the commit writes anew: first as `pending`, renamed over `path` once the
  // catalog is in place; `backup` is a link to the file it replaces, kept until the commit
  // can no longer fail.
  struct File {
    std::string path, pending, backup;
    bool written = false;    // pending exists (perhaps partly written)
    bool backed_up = false;  // backup exists
    bool renamed = false;    // pending has become path
  };

  Catalog cat;                // the catalog the commit writes
  std::vector<BatRec*> recs;  // the BAT of each catalog entry, in the same order
  std::vector<bool> checked;  // per entry: its flags were checked against its data
  std::vector<bool> hashed;   // per entry: its files were hashed for new sums
  std::unique_ptr<SumsHasher, SumsHasherDeleter> hasher;  // sums being made, if any
  std::vector<bat> dropped;  // BATs whose replacements take their place
  std::vector<File> files;
  std::set<std::string> dirs;  // directories whose entries the commit changes
  std::string catalog, catalog_new, catalog_backup;
  bool wrote_catalog_new = false;
  bool backed_up_catalog = false;
  bool renamed_catalog = false;
};

// Each step returns false with *why when it fails; what it did is recorded in the plan.

// The catalog entries of every persistent BAT, replacements under their targets' names.
bool PlanEntries(CommitPlan* p, std::string* why);
// Writes the dirty heaps of the kernel's own BATs as pending files and flushes the files kept
// as they are (those the copy-into library rewrote among them).
bool WriteColumnFiles(CommitPlan* p, std::string* why);
// Starts making the sums (sums.h) of every column file written or rewritten, and of every
// file whose BAT has none yet: reads the files and hashes them on helper threads while the
// commit goes on. sums_io.cc.
// REQUIRES: runs before WriteColumnFiles, whose flushes the hashing overlaps.
bool StartSums(CommitPlan* p, std::string* why);
// Hashes alongside the helper until every block is done; false with *why when a column file
// could not be read.
bool FinishSums(CommitPlan* p, std::string* why);
// Writes the sums as pending files and flushes them. REQUIRES: FinishSums has run.
bool WriteSums(CommitPlan* p, std::string* why);
// Flushes the directories whose entries the commit changed so far.
bool SyncDirs(CommitPlan* p, std::string* why);
// For every rewritten BAT that claims sorted, revsorted, key or no-nil: loads its data from
// its files and clears, in its catalog entry, every claim the data contradicts.
bool CheckRewrittenFlags(CommitPlan* p, std::string* why);
// Links the files the commit will replace (the catalog, the old column files) to backups.
bool BackUp(CommitPlan* p, std::string* why);
// Undoes what the plan records, in the order that keeps the farm readable as one of the two
// commits at every step. False with *why if the previous commit could not be put back; the
// farm then holds the new one.
bool Undo(CommitPlan* p, std::string* why);
// Once the commit has taken effect: brings the descriptors in memory up to it, hands the
// replaced BATs' names to their replacements, and removes what is no longer needed.
void Apply(CommitPlan* p);

}  // namespace corvid

#endif  // CORVID_SRC_COMMIT_H_
