// The two UID lists of the configuration, split into UID texts.
#include <android/log.h>

#include <sstream>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"

namespace {

constexpr const char* kTag = "VekParameters";

// Split like a stream's getline at ',': empty fields between commas are kept,
// a trailing comma adds nothing, blanks stay part of the text.
void splitUidList(const std::string& list, std::vector<std::string>& out, const char* logFormat) {
    out.clear();
    std::istringstream in(list);
    std::string field;
    while (std::getline(in, field, ',')) out.push_back(field);
    for (const std::string& uid : out) {
        if (!gDebugLogEnabled) break;
        __android_log_print(ANDROID_LOG_INFO, kTag, logFormat, uid.c_str());
    }
}

}  // namespace

void Parameters::populateUIDVec() {
    splitUidList(m_gamingUidList, m_gamingUidVec, "VEK GAMING Demo UID = %s");
}

void Parameters::populateVekUidVec() {
    splitUidList(m_vekUidList, m_vekUidVec, "VEK UID = %s");
}
