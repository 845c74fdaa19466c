// Build-time generator: reads the catalogue (layouts, the layout of every
// request id, answer shapes and aliases, both routing tables; ReadCatalogue.cpp
// into Catalogue.h) and writes
//   trdcomp/TrdCompMembers.inc    the per-id codec members of CTrdCompData;
//   trdcomp/TrdCompRecords.h      a packed struct for every record layout
//                                 (these two: public headers);
//   codecs/CatalogueRequests.cpp, the member definitions and the route rows,
//   codecs/CatalogueAnswers.cpp   over the engines;
//   codecs/RouteSlots.h           the ids the route tables hold a slot for
//                                 (these five: WriteLibraryCode.cpp);
//   model/CatalogueFingerprint.h  the catalogue's fingerprint;
//   model/RecordFields.h          every layout's fields as NumPy formats;
//   model/CatalogueTables.h       the whole catalogue as constant run-time data,
//   model/CatalogueKinds.h        the kinds of field, shape and routing cell
//                                 (these four: WriteTables.cpp), for the
//                                 model, the tools and the Python module, and
//                                 the kinds for the library's routing.
//
// usage: trdcomp_catalogue_gen OUTPUT_DIR | --canonical | --hash
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "gen/Catalogue.h"
#include "gen/Writers.h"

namespace {

// Writes a file only when its content changed, so builds stay incremental.
void Emit(const std::string& path, const std::string& text) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream old;
    old << in.rdbuf();
    if (in && old.str() == text) return;
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string arg = argc == 2 ? argv[1] : "";
    if (argc != 2 || arg == "--help") {
        std::cerr << "usage: trdcomp_catalogue_gen OUTPUT_DIR | --canonical | --hash\n"
                     "OUTPUT_DIR: writes trdcomp/TrdCompMembers.inc, trdcomp/TrdCompRecords.h (the public headers),\n"
                     "  codecs/CatalogueRequests.cpp, codecs/CatalogueAnswers.cpp, codecs/RouteSlots.h (the library's\n"
                     "  code), model/CatalogueFingerprint.h, model/RecordFields.h, model/CatalogueTables.h and\n"
                     "  model/CatalogueKinds.h from the\n"
                     "  catalogue compiled into this program\n"
                     "--canonical: prints the catalogue's canonical text, of which the fingerprint is the hash\n"
                     "--hash: prints the fingerprint (FNV-1a 64, 16 hex digits) of the text on standard input\n";
        return argc == 2 ? 0 : 2;
    }
    using namespace catalogue_gen;
    try {
        ReadCatalogue();
        if (arg == "--canonical") {
            std::cout << g_canonical;
            return 0;
        }
        if (arg == "--hash") {
            std::ostringstream text;
            text << std::cin.rdbuf();
            std::cout << FingerprintOf(text.str()) << "\n";
            return 0;
        }
        const Members m = Collect();
        const std::string dir = arg;
        std::ostringstream members, records, requests, answers, slots, fingerprint, fields, tables, kinds;
        WriteMembers(members, m);
        WriteRecords(records);
        WriteRequests(requests, m);
        WriteAnswers(answers, m);
        WriteRouteSlots(slots);
        WriteFingerprint(fingerprint);
        WriteRecordFields(fields);
        WriteModelTables(tables);
        WriteKinds(kinds);
        Emit(dir + "/trdcomp/TrdCompMembers.inc", members.str());
        Emit(dir + "/trdcomp/TrdCompRecords.h", records.str());
        Emit(dir + "/codecs/CatalogueRequests.cpp", requests.str());
        Emit(dir + "/codecs/CatalogueAnswers.cpp", answers.str());
        Emit(dir + "/codecs/RouteSlots.h", slots.str());
        Emit(dir + "/model/CatalogueFingerprint.h", fingerprint.str());
        Emit(dir + "/model/RecordFields.h", fields.str());
        Emit(dir + "/model/CatalogueTables.h", tables.str());
        Emit(dir + "/model/CatalogueKinds.h", kinds.str());
    } catch (const std::exception& e) {
        std::cerr << "trdcomp_catalogue_gen: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
