#include "ServiceDescription.h"

#include <algorithm>
#include <fstream>

#include "ServiceSchemas.h"
#include "ZelLog.h"

namespace ServiceDescription {

const File* Find(const Table& table, const HttpRequest& request) {
    const std::string_view url = request.url ? std::string_view(*request.url) : "";
    const std::size_t mark = url.find('?');
    if (mark == std::string_view::npos) {
        return nullptr;
    }
    const auto found = std::find_if(table.begin(), table.end(), [&](const File& file) {
        return file.query == url.substr(mark + 1);
    });
    return found == table.end() ? nullptr : &*found;
}

std::optional<std::string> Read(const File& file) {
    const std::string path = std::string(ServiceSchemas::kDirectory) + file.name;
    std::ifstream stream(path);
    if (!stream) {
        ZEL_ERROR("Can't open %s", path.c_str());
        return std::nullopt;
    }
    std::string text;
    std::string line;
    while (std::getline(stream, line)) {
        text += line + "\n";
    }
    return text;
}

void ReplaceFirst(std::string& text, std::string_view pattern, std::string_view replacement) {
    const std::size_t position = text.find(pattern);
    if (position != std::string::npos) {
        text.replace(position, pattern.size(), replacement);
    }
}

void RewriteAddress(std::string& text, const std::string& host) {
    const std::string start = "wsdlsoap:address location=\"";
    ReplaceFirst(text, start + "http://localhost", start + "http://" + host);
}

}  // namespace ServiceDescription
