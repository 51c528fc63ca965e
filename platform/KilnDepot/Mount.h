#pragma once
#include <string>

#include "Basis/Types.h"
#include "Depot/SharedTable.h"
#include "KilnDepot/KilnDepotMap.h"

namespace KilnDepot {
using Basis::U8, Basis::U16, Basis::U32, Basis::U64;

// The file that holds a collection under a depot root:
// "{root}/{collection name}". Raises Basis::RangeException for a name that
// is no relative path of plain parts (empty, absolute, "." or "..").
std::string collectionPath(const std::string& collectionName, const std::string& root);
// The shared table of the collection "{owner}/{attribute}" under root, with
// the name refused as collectionPath refuses it.
Depot::TablePath collectionTable(const std::string& root, const std::string& owner, const std::string& attribute);

// Makes the binding the writer of its shared table: creates the table, or
// reopens it when a writer restarts, copies in the records written locally
// whose keys the table lacks, then replaces the binding's table and sets its
// mount status to writer. Files get `mode`; a new table starts with room for
// `capacity` records (at least twice the local ones), so that a load of a
// known size does not grow it step by step. On failure the binding keeps its
// table, its mount status becomes failed, and the exception propagates.
void mountWriter(CollectionBinding& binding, const std::string& root, U32 mode = 0644, U64 capacity = 0);
// Maps the binding's existing shared table read-only in its place; mount
// status reader. Records written locally are dropped.
void mountReader(CollectionBinding& binding, const std::string& root);

}  // namespace KilnDepot
