// The writers of the generated files, each from the catalogue as read
// (Catalogue.h) into a stream; Main.cpp puts them in their files.
#pragma once

#include <iosfwd>
#include <string>

#include "gen/Catalogue.h"

namespace catalogue_gen {

// The library's code (WriteLibraryCode.cpp).
void WriteMembers(std::ostream& o, const Members& m);  // trdcomp/TrdCompMembers.inc
void WriteRecords(std::ostream& o);                    // trdcomp/TrdCompRecords.h
void WriteRequests(std::ostream& o, const Members& m); // CatalogueRequests.cpp
void WriteAnswers(std::ostream& o, const Members& m);  // CatalogueAnswers.cpp
void WriteRouteSlots(std::ostream& o);                 // RouteSlots.h

// The catalogue as data (WriteTables.cpp).
void WriteFingerprint(std::ostream& o);   // CatalogueFingerprint.h
void WriteRecordFields(std::ostream& o);  // RecordFields.h
void WriteModelTables(std::ostream& o);   // CatalogueTables.h
void WriteKinds(std::ostream& o);         // CatalogueKinds.h

// The fingerprint of a text: FNV-1a 64, as 16 lowercase hex digits.
std::string FingerprintOf(const std::string& text);

}  // namespace catalogue_gen
