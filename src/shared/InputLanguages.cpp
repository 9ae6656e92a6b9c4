#include "shared/InputLanguages.h"

#include "base/Log.h"
#include "store/Settings.h"

namespace sprelio {

InputLanguages chooseInputLanguages(std::optional<std::string> shortcutLanguageCode, const store::Settings& settings) {
    InputLanguages result;
    if (shortcutLanguageCode && shortcutLanguageCode->empty()) shortcutLanguageCode.reset();
    if (shortcutLanguageCode) {
        result.inputLanguageCode = shortcutLanguageCode;
        result.codes.push_back(*shortcutLanguageCode);
        logInfo("inputLanguageCodes{} - using explicit inputLanguageCode=" + *shortcutLanguageCode);
        return result;
    }
    for (const auto& language : settings.localizedTranslationLanguages()) {
        if (!language.code.empty()) result.codes.push_back(language.code);
    }
    std::string text = "[";
    for (std::size_t i = 0; i < result.codes.size(); ++i) {
        if (i) text += ", ";
        text += "\"" + result.codes[i] + "\"";
    }
    logInfo("inputLanguageCodes{} - no explicit inputLanguageCode, falling back to languages=" + text + "]");
    return result;
}

} // namespace sprelio
