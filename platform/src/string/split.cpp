#include "orv/string/split.h"

namespace orv::string {

std::vector<std::string> split(std::string text, const std::string& delimiter)
{
    std::vector<std::string> fields;
    if (delimiter.empty()) {
        fields.push_back(std::move(text));
        return fields;
    }
    std::string::size_type begin = 0;
    for (;;) {
        const std::string::size_type end = text.find(delimiter, begin);
        if (end == std::string::npos) {
            fields.push_back(text.substr(begin));
            return fields;
        }
        fields.push_back(text.substr(begin, end - begin));
        begin = end + delimiter.size();
    }
}

}  // namespace orv::string
