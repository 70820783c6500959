// The memory pages of pugixml's trees. Used by the XML documents.
#pragma once

namespace qn {

// From now on each thread keeps one page. A document needs one and lives for microseconds; a block
// of this size is slow to allocate, and freeing it makes the allocator give up its stock of small
// blocks. Call it before the first document; returns true.
bool keepXmlPages();

}  // namespace qn
