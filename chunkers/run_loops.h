// The loops that carry runs of adjacent values into a chunk: a copy (or an integer
// conversion) that stores the chunker's nil for the source's, and the order check of the run statistics. Every value of
// a column passes through them, so they live in run_loops.cc, built for the vectoriser and
// cloned for AVX2 beside the baseline.
#ifndef QOPCI_CHUNKERS_RUN_LOOPS_H_
#define QOPCI_CHUNKERS_RUN_LOOPS_H_

#include <cstddef>

namespace qopci {

// out[i] = the i-th T of src, or stored_nil where its bits are those of *nil; i < k.
template <typename T>
void CopyReplacingNil(const char* src, size_t k, const void* nil, T stored_nil, T* out);

// out[i] = the i-th S of src converted to T as an integer cast does, or stored_nil where
// its bits are those of *nil; i < k. For integer columns fed from integers of another width.
template <typename T, typename S>
void ConvertReplacingNil(const char* src, size_t k, const void* nil, T stored_nil, T* out);

// Whether v[j - 1] < v[j] (strictly) or v[j - 1] <= v[j] holds for every 0 < j < k.
template <typename T>
bool RunAscends(const T* v, size_t k, bool strictly);

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_RUN_LOOPS_H_
