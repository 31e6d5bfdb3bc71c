// The spec file.
#include "fuzz.h"
#include "uts_tsspec.h"

using fuzz::Require;

namespace {

constexpr int FATAL = -1;

// Loads the content as a file; FATAL when it ends in the assertion that ends the server.
int Load(suts_tsspec& spec, std::string_view content, std::string* text = nullptr) {
    sutl_Descriptor const file = fuzz::MemoryFile(content);
    fuzz::Messages const messages;
    int result = FATAL;
    try {
        result = spec.Init(("/proc/self/fd/" + std::to_string(file.Get())).c_str());
    } catch (fuzz::Assertion const& assertion) {
        Require(assertion.message == "ERROR, bad spec file!\n", "the only fatal file is one that ends behind a type");
    }
    if (text != nullptr) *text = messages.Text();
    return result;
}

// The schema as a file of a token a line.
std::string Write(suts_tsspec const& spec) {
    static char const* const types[] = {"", "string64", "int32", "int64", "float64"};
    std::string content;
    auto const add = [&content](std::string_view token) {
        Require(!token.empty() && token.find_first_of(" \t\r\n") == std::string_view::npos, "a token has no blank");
        content.append(token).append("\n");
    };
    add(spec.name.get());
    for (int i = 0; i < spec.fieldCount; ++i) {
        Require(spec.Type(i) >= SUTS_STRING64 && spec.Type(i) <= SUTS_FLOAT64, "every field has a type");
        add(types[spec.Type(i)]);
        add(spec.fieldNames[static_cast<std::size_t>(i)].get());
    }
    return content;
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    std::string const content(reinterpret_cast<char const*>(data), size);
    suts_tsspec spec;
    std::string text;
    int const result = Load(spec, content, &text);

    std::string const start = "ERROR suts_tspec: ";
    Require(result == suts_tsspec::LOADED || result == FATAL || text.starts_with(start), "an error is reported");
    Require(result != suts_tsspec::INCOMPLETE || text == start + "Incomplete spec file!\n", "as incomplete");
    Require(result != suts_tsspec::UNREADABLE || text.starts_with(start + "Syntax, bad type "), "as a bad type");
    Require(spec.HasKeyField() == (result == suts_tsspec::LOADED && spec.fieldCount > 0), "only a loaded one is used");

    // One more name mends a file that ended too early, and no other.
    suts_tsspec longer;
    int const longerResult = Load(longer, content + "\nz");
    bool const endedEarly = result == FATAL || result == suts_tsspec::INCOMPLETE;
    Require(longerResult == (endedEarly ? suts_tsspec::LOADED : suts_tsspec::UNREADABLE), "one more name mends it");

    suts_tsspec const& loaded = endedEarly ? longer : spec;
    if (result == suts_tsspec::UNREADABLE) return 0;
    suts_tsspec again;
    suts_tsspec copy;
    Require(Load(again, Write(loaded)) == suts_tsspec::LOADED, "what was loaded can be written and loaded");
    copy.CopyFrom(loaded);
    Require(Write(again) == Write(loaded) && Write(copy) == Write(loaded), "copies say the same");
    return 0;
}
