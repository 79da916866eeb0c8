#include "vel/cpp_utils/uri/uri.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "vel/cpp_utils/error.h"

namespace Vel::CppUtil {

namespace {

constexpr std::size_t NOT_FOUND = std::string_view::npos;

/// Shortens `text` to the part before the first `delimiter` and returns the part after it. Without a
/// delimiter `text` stays and the result is empty.
std::string_view cutTail(std::string_view& text, char delimiter) {
    const std::size_t position = std::min(text.find(delimiter), text.size());
    const std::string_view tail = text.substr(std::min(position + 1, text.size()));
    text = text.substr(0, position);
    return tail;
}

Uri::Query parseQuery(std::string_view text) {
    Uri::Query query;
    while (!text.empty()) {
        std::string_view key = text;
        text = cutTail(key, '&');
        if (key.find('=') != NOT_FOUND) {
            const std::string_view value = cutTail(key, '=');
            query[std::string(key)] = value;
        }
    }
    return query;
}

/// Reads an unsigned number of 32 bits: leading white space and a sign are accepted, a negative number wraps
/// around, the text after the digits is ignored, and no digits are 0. A number that is not a port leaves the
/// port unset.
void parsePort(UriAuthority& authority, const std::string& text) {
    constexpr long long LIMIT = std::numeric_limits<std::uint32_t>::max();
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    const auto port = static_cast<std::uint32_t>(number);
    if (-LIMIT <= number && number <= LIMIT && port <= std::numeric_limits<std::uint16_t>::max()) {
        authority.setPort(static_cast<std::uint16_t>(port));
    }
}

UriAuthority parseAuthority(std::string_view text) {
    UriAuthority authority;
    if (const std::size_t at = text.find('@'); at != NOT_FOUND && at > 0) {
        std::string_view user = text.substr(0, at);
        authority.setPassword(std::string(cutTail(user, ':')));
        authority.setUser(std::string(user));
        text = text.substr(at + 1);
    }
    if (text.find(':') != NOT_FOUND) {
        parsePort(authority, std::string(cutTail(text, ':')));
    }
    authority.setHost(std::string(text));
    return authority;
}

}  // namespace

std::string Uri::toString() const {
    std::string text = m_Scheme + ":";
    if (!m_Authority.getHost().empty()) {
        text += "//";
        if (!m_Authority.getUser().empty()) {
            text += m_Authority.getUser();
            if (!m_Authority.getPassword().empty()) {
                text += ":" + m_Authority.getPassword();
            }
            text += "@";
        }
        text += m_Authority.getHost();
        if (m_Authority.getPort() > 0) {
            text += ":" + std::to_string(m_Authority.getPort());
        }
    }
    return text + toRelativeString();
}

std::string Uri::toRelativeString() const {
    std::string text;
    if (!m_Path.empty()) {
        text += "/" + m_Path;
    }
    char delimiter = '?';
    for (const auto& [key, value] : m_Query) {
        text.append(1, delimiter).append(key).append("=").append(value);
        delimiter = '&';
    }
    if (!m_Fragment.empty()) {
        text += "#" + m_Fragment;
    }
    return text;
}

Uri Uri::parse(const std::string& text) {
    return UriParser(text).getUri();
}

UriParser::UriParser(const std::string& text) : m_Text(text) {
    try {
        m_Uri = parse();
    } catch (const std::out_of_range& error) {
        throw ParsingError("Failed parsing of given URI: \"" + m_Text +
                           "\". Caused external exepction: " + error.what());
    }
}

std::size_t UriParser::parseScheme(Uri& uri) const {
    const std::size_t colon = m_Text.find(':');
    uri.setScheme(m_Text.substr(0, colon));
    if (uri.getScheme().empty()) {
        throw ParsingError("Failed parsing of given URI: \"" + m_Text + "\". Missing mandatory scheme");
    }
    // at() throws if the string ends inside "://"; that case has its own message.
    if (colon == NOT_FOUND || m_Text.at(colon + 1) != '/' || m_Text.at(colon + 2) != '/') {
        throw ParsingError("Failed parsing of given URI: \"" + m_Text +
                           "\". Missing mandatory \"://\" delimiter");
    }
    return colon + 3;
}

/// Splits components off the end, so that a delimiter inside a later component does not count.
Uri UriParser::parse() const {
    Uri uri;
    const std::size_t begin = parseScheme(uri);
    std::string_view rest = std::string_view(m_Text).substr(begin);
    if (const std::size_t hash = m_Text.rfind('#'); hash != NOT_FOUND) {
        uri.setFragment(m_Text.substr(hash + 1));
        if (hash >= begin) {
            rest = rest.substr(0, hash - begin);
        }
    }
    uri.setQuery(parseQuery(cutTail(rest, '?')));
    uri.setPath(std::string(cutTail(rest, '/')));
    uri.setAuthority(parseAuthority(rest));
    return uri;
}

}  // namespace Vel::CppUtil
