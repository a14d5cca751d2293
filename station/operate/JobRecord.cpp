// What is kept of the job, so that the next station can tell what was interrupted.
#include "JobRecord.h"

#include <cstdio>
#include <fstream>
#include <iterator>

static const char* const RECORD = "run.json";
static const char* const NEW_RECORD = "run.json.new";

using nlohmann::json;

JobRecord JobRecord::read()
{
    std::ifstream file(RECORD);
    const std::string strText(std::istreambuf_iterator<char>(file), {});
    const json document = json::parse(strText, nullptr, false);
    JobRecord record;
    if (!document.is_object() || !document.contains("last") || !document.contains("running")) {
        return record; // none yet
    }
    record.last = document["last"];
    if (const json& place = document["running"]; place.is_object()) {
        record.bRunning = true;
        record.running.strSum = place.value("sha256", "");
        record.running.u64Skipped = place.value("skipped", uint64_t{0});
        record.running.u64Added = place.value("added", uint64_t{0});
    }
    return record;
}

void JobRecord::write() const
{
    json place;
    if (bRunning) {
        place = {{"sha256", running.strSum},
                 {"skipped", running.u64Skipped},
                 {"added", running.u64Added}};
    }
    std::ofstream(NEW_RECORD) << json{{"last", last}, {"running", place}}.dump();
    (void)rename(NEW_RECORD, RECORD); // else the former one stays
}
