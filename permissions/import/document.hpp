// SPDX-License-Identifier: LGPL-3.0-or-later
// Feeds the data file to the JSON parser in chunks, so that an import needs no memory for the file.
#pragma once

#include <yajl/yajl_parse.h>
#include <cstddef>

namespace tavrix {

// Fits into a processor's second-level cache, and makes system calls rare.
constexpr std::size_t kDocumentChunk = std::size_t{256} * 1024;

// Parses the file from its present position. `size` is the size that the file had when it was
// looked at; the file may have another by now, and is read to its end.
//
// Errors of the parser and of reads go to standard error, with the same texts whatever the chunks
// are. false when there is no memory for a chunk; nothing was read then. The parser itself ends the
// process without memory.
[[nodiscard]] bool parse_document(int file, std::size_t size, const yajl_callbacks& callbacks,
                                  std::size_t chunk_size = kDocumentChunk) noexcept;

}  // namespace tavrix
