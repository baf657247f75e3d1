// A component's result document, as packages and plug-ins write it: read as
// the scan result reads it, summed up into failed tests, execution time and
// the problem signature's input, and written back as the agent writes it.
#include <sstream>
#include <stdexcept>

#include <json/json.h>
#include <utf8cpp/utf8.h>

#include "FuzzSupport.h"
#include "platform/util/JsonText.h"
#include "results/ProblemSignature.h"
#include "results/ResultFormat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = zep::fuzz::Bytes(data, size);
    Json::Value document;
    if (!zep::json::Parse(text, document)) return 0;

    try {
        const zep::results::ComponentSummary summary = zep::results::SummariseComponents({document, document}, 0.0f);
        ZEP_FUZZ_CHECK(summary.failedTests % 2 == 0);
        ZEP_FUZZ_CHECK(summary.signatureInput.size() % 2 == 0);
    } catch (const std::invalid_argument&) {  // a time that is not a number: documented
    } catch (const std::out_of_range&) {
    }

    // The agent's own writer gives text that reads back as the same document
    // (JsonCpp's writer mangles strings that are not UTF-8, so only for text).
    const std::string written = zep::results::WriteDocument(document);
    Json::Value reread;
    ZEP_FUZZ_CHECK(zep::json::Parse(written, reread));
    if (utf8::is_valid(text.begin(), text.end())) ZEP_FUZZ_CHECK(zep::results::WriteDocument(reread) == written);

    // The stream reading of a stored scan result throws on what it cannot read.
    try {
        std::istringstream in{std::string(text)};
        Json::Value stored;
        in >> stored;
        static_cast<void>(stored["executionTimeSeconds"].asString());
    } catch (const std::exception&) {
    }
    return 0;
}
