// Sample messages of every function id, built from deterministic realistic
// records: the golden corpus, the demo of the command-line tool and the size
// bound tests all start from these.
#pragma once

#include <string>
#include <vector>

#include "model/CatalogueModel.h"
#include "trdcomp/TrdCompData.h"

namespace catalogue_model {

// Every id that has a slot in the library's routing tables (interface/src/Routing.h).
std::vector<int> RoutedIds();

// A request as its caller hands it over: head and record array.
struct RequestSample {
    const Layout* layout = nullptr;  // the layout of the records
    tagREQ_HEAD head{};
    std::vector<char> data;
};

// An answer as its caller hands it over: tagANS_Proc and up to five arrays.
struct AnswerSample {
    std::string variant;                   // "" or "_n1" / "_n2" for count-switched answers
    std::vector<const Layout*> layouts;    // layout of each array
    tagANS_Proc proc{};
    std::vector<std::vector<char>> arrays = std::vector<std::vector<char>>(5);
};

// The request of `id` whose pack cell in `coding` is a codec, or none (false).
bool SampleRequest(int id, Coding coding, RequestSample& out);

// The answers of `id` whose pack cell in `coding` is a codec: one per array
// shape (count-switched answers at 1 and at 2 records), or none.
std::vector<AnswerSample> SampleAnswers(int id, Coding coding);

// Records of one array: realistic, adjacent ones sharing some fields.
std::vector<char> SampleRecords(const Layout& l, int count, std::mt19937& rng);

}  // namespace catalogue_model
