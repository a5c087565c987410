// uri_address_model.h: which hosts are IPv4 or IPv6 addresses: the rules on pieces of the text instead of a scan.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

inline std::vector<std::string> pieces(const std::string& text, char separator) {
    std::vector<std::string> result(1);
    for (const char c : text) {
        if (c == separator)
            result.emplace_back();
        else
            result.back() += c;
    }
    return result;
}

inline bool isQuadModel(const std::string& text) {
    const std::vector<std::string> numbers = pieces(text, '.');
    return numbers.size() == 4 && std::all_of(numbers.begin(), numbers.end(), [](const std::string& number) {
               return !number.empty() && number.find_first_not_of("0123456789") == std::string::npos &&
                      std::stod(number) <= 255;
           });
}

inline bool isGroupModel(const std::string& text) {
    return !text.empty() && text.size() <= 4 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// compressionsModel counts them; 2 also stands for three colons in a row.
inline int compressionsModel(const std::string& address) {
    if (address.find(":::") != std::string::npos)
        return 2;
    const size_t first = address.find("::");
    if (first == std::string::npos)
        return 0;
    return address.find("::", first + 2) == std::string::npos ? 1 : 2;
}

inline bool hasIPv6Form(int groups, int compressions) {
    return groups >= 1 && groups <= 8 && compressions == (groups < 8 ? 1 : 0);
}

inline bool isIPv6Model(const std::string& text) {
    const size_t percent = text.find('%');
    const std::string address = text.substr(0, percent);
    const bool hasZone = percent != std::string::npos;
    const int compressions = compressionsModel(address);
    if (compressions > 1 || address == "::" || (address.starts_with(":") && !address.starts_with("::")))
        return false;
    const std::vector<std::string> groups = pieces(address, ':');
    const std::string last = groups.back();
    int count = 0;
    for (size_t i = 0; i < groups.size(); ++i) {
        const bool isLast = i + 1 == groups.size();
        const std::string start = groups[i].substr(0, groups[i].find('.'));
        if (isGroupModel(groups[i]))
            count += isLast && hasZone ? 0 : 1;
        else if (isLast && isGroupModel(start) && isQuadModel(groups[i]))
            count += 2;
        else if (!groups[i].empty() || (isLast && hasZone))
            return false;
    }
    return hasIPv6Form(count, compressions);
}
