// What the match side asks of an open search table: how many entries it has,
// and some of them.
//
// The two counts differ on purpose: an empty weak table is a count of 0, an
// empty strong table an error. Tests: tests/unit/match/vn_search_table_data_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform.h"
#include "table_format.h"

// Reads exactly `bytes` at the file's position; false on an error or at an
// earlier end.
bool readWhole(platform::File* file, void* buffer, size_t bytes);

// Stores the number of signatures, unless `sig_num` is null. Returns 0; -5 when
// the size cannot be had, is 4 GiB - 1 or more, or is no multiple of 8.
int chk_sig_num_in_weak_search_table(platform::File* file, uint32_t* sig_num);

// Stores the number of whole elements, also when it then finds fault with the
// size. Returns 0; -5 when the size cannot be had (nothing is stored then), is
// 4 GiB - 1 or more, 0, or no multiple of 16.
int chk_search_table_ele_num(platform::File* file, uint32_t* ele_num);

// What a read of elements costs, in elements that could be copied meanwhile: what
// lies closer together is read at once.
inline constexpr uint32_t kReadGap = 320;

// The elements of one read, at most: 64 KiB.
inline constexpr uint32_t kMostReadElements = 4096;

enum class ReadResult { kDone, kSeekFailed, kReadFailed };

// Reads the `count` elements from element `position` of a strong table on.
ReadResult readElements(platform::File* file, uint32_t position, uint32_t count,
                        StrongElement* elements);
