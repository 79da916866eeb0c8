#include "vel/cpp_utils/uri/uri.h"

#include <cstdlib>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "vel/cpp_utils/error.h"

namespace Vel::CppUtil {

namespace {

constexpr std::size_t NOT_FOUND = std::string_view::npos;

/// Shortens `text` to the part before the first `delimiter` and returns the part after it; without a
/// delimiter `text` stays and the result is empty.
std::string cutTail(std::string_view& text, char delimiter) {
    const std::size_t position = text.find(delimiter);
    if (position == NOT_FOUND) {
        return {};
    }
    std::string tail(text.substr(position + 1));
    text = text.substr(0, position);
    return tail;
}

Uri::Query parseQuery(const std::string& text) {
    Uri::Query query;
    std::istringstream segments(text);
    segments.exceptions(std::ios::badbit);  // otherwise a lack of memory would pass as the end of the text
    for (std::string segment; std::getline(segments, segment, '&');) {
        if (const std::size_t equals = segment.find('='); equals != NOT_FOUND) {
            query[segment.substr(0, equals)] = segment.substr(equals + 1);
        }
    }
    return query;
}

/// Leading blanks and a sign are taken, trailing text is left, no digits are 0. What does not fit a port
/// leaves it unset.
void parsePort(UriAuthority& authority, const std::string& text) {
    const unsigned long long port = std::strtoull(text.c_str(), nullptr, 10);
    if (port <= std::numeric_limits<std::uint16_t>::max()) {
        authority.setPort(static_cast<std::uint16_t>(port));
    }
}

UriAuthority parseAuthority(std::string_view text) {
    UriAuthority authority;
    if (const std::size_t at = text.find('@'); at != NOT_FOUND && at > 0) {
        std::string_view user = text.substr(0, at);
        authority.setPassword(cutTail(user, ':'));
        authority.setUser(std::string(user));
        text = text.substr(at + 1);
    }
    if (text.find(':') != NOT_FOUND) {
        parsePort(authority, cutTail(text, ':'));
    }
    authority.setHost(std::string(text));
    return authority;
}

}  // namespace

void UriAuthority::setUser(const std::string& user) {
    m_User = user;
    m_UserSet = true;
}

void UriAuthority::setPassword(const std::string& password) {
    m_Password = password;
    m_PasswordSet = true;
}

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
    // A text that ends within the delimiter is distinguished from a wrong one by the error of at().
    if (colon == NOT_FOUND || m_Text.at(colon + 1) != '/' || m_Text.at(colon + 2) != '/') {
        throw ParsingError("Failed parsing of given URI: \"" + m_Text +
                           "\". Missing mandatory \"://\" delimiter");
    }
    return colon + 3;
}

/// Takes components off the end, so that a delimiter counts only where no later component has claimed it.
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
    uri.setPath(cutTail(rest, '/'));
    uri.setAuthority(parseAuthority(rest));
    return uri;
}

}  // namespace Vel::CppUtil
