// HTTP/1.1 requests parsed within a bound, and responses written.
#include "httpmessage.h"

#include <algorithm>
#include <cstring>

namespace {

// RFC 9110's token characters.
bool token_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c && strchr("!#$%&'*+-.^_`|~", c));
}

bool token(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), token_char);
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

// Visible characters, spaces and tabs, and obs-text: what a field value
// and a target may hold (a target no spaces).
bool field_text(std::string_view text, bool spaces) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        auto u = static_cast<unsigned char>(c);
        return (u > 0x20 && u != 0x7F) || (spaces && (c == ' ' || c == '\t'));
    });
}

int hex_digit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

const char* reason_phrase(unsigned status) {
    switch (status) {
        case 101:
            return "Switching Protocols";
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 426:
            return "Upgrade Required";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Error";
    }
}

}  // namespace

unsigned http_request_parse(std::string_view bytes, http_request_t& request, size_t& head_size) {
    std::string_view window = bytes.substr(0, HTTP_MAX_REQUEST_HEAD);
    size_t end = window.find("\r\n\r\n");
    // A line ended by a bare LF is refused at once rather than waited on:
    // the head it belongs to would never end.
    for (size_t lf = window.find('\n'); lf < std::min(end, window.size());
         lf = window.find('\n', lf + 1)) {
        if (lf == 0 || window[lf - 1] != '\r') {
            return 400;
        }
    }
    if (end == std::string_view::npos) {
        return bytes.size() >= HTTP_MAX_REQUEST_HEAD ? 431 : 0;
    }
    head_size = end + 4;
    std::string_view head = bytes.substr(0, end + 2);
    size_t line_end = head.find("\r\n");
    std::string_view line = head.substr(0, line_end);
    size_t first = line.find(' ');
    size_t second = first == std::string_view::npos ? first : line.find(' ', first + 1);
    if (second == std::string_view::npos || line.find(' ', second + 1) != std::string_view::npos) {
        return 400;
    }
    std::string_view method = line.substr(0, first);
    std::string_view target = line.substr(first + 1, second - first - 1);
    std::string_view version = line.substr(second + 1);
    if (!token(method) || target.empty() || target[0] != '/' || !field_text(target, false)) {
        return 400;
    }
    if (version.size() != 8 || version.substr(0, 5) != "HTTP/" || version[6] != '.' ||
        !isdigit(static_cast<unsigned char>(version[5])) ||
        !isdigit(static_cast<unsigned char>(version[7]))) {
        return 400;
    }
    if (version.substr(5) != "1.1" && version.substr(5) != "1.0") {
        return 505;
    }
    request = {std::string(method), std::string(target), version[7] == '1', {}};
    for (size_t at = line_end + 2; at < head.size();) {
        size_t next = head.find("\r\n", at);
        std::string_view field = head.substr(at, next - at);
        size_t colon = field.find(':');
        // No folded lines, and no space before the colon.
        if (colon == std::string_view::npos || !token(field.substr(0, colon)) ||
            !field_text(field.substr(colon + 1), true)) {
            return 400;
        }
        request.headers.emplace_back(http_lower(field.substr(0, colon)),
                                     std::string(trim(field.substr(colon + 1))));
        at = next + 2;
    }
    // HTTP/1.1 asks for exactly one Host; a body is not something a GET of
    // ours reads, so one announced (or two lengths, which smuggle one) is
    // refused rather than left to be read as the next request.
    if ((request.http11 && http_request_header_count(request, "host") != 1) ||
        http_request_header_count(request, "host") > 1 ||
        http_request_header_count(request, "transfer-encoding") > 0 ||
        http_request_header_count(request, "content-length") > 1 ||
        (http_request_header_count(request, "content-length") == 1 &&
         http_request_header(request, "content-length") != "0")) {
        return 400;
    }
    return 200;
}

std::string http_request_header(const http_request_t& request, std::string_view name) {
    for (const auto& [key, value] : request.headers) {
        if (key == name) {
            return value;
        }
    }
    return {};
}

size_t http_request_header_count(const http_request_t& request, std::string_view name) {
    return std::count_if(request.headers.begin(), request.headers.end(),
                         [&](const auto& header) { return header.first == name; });
}

std::string http_request_path(const http_request_t& request) {
    return request.target.substr(0, request.target.find('?'));
}

std::string http_request_query(const http_request_t& request, std::string_view name) {
    size_t question = request.target.find('?');
    if (question == std::string::npos) {
        return {};
    }
    std::string_view query = std::string_view(request.target).substr(question + 1);
    for (size_t at = 0; at <= query.size();) {
        size_t end = std::min(query.find('&', at), query.size());
        std::string_view pair = query.substr(at, end - at);
        size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
            std::string value;
            std::string_view raw = pair.substr(equals + 1);
            for (size_t i = 0; i < raw.size(); ++i) {
                bool escape = raw[i] == '%' && i + 2 < raw.size();
                int high = escape ? hex_digit(raw[i + 1]) : -1;
                int low = escape ? hex_digit(raw[i + 2]) : -1;
                if (high >= 0 && low >= 0) {
                    value += static_cast<char>(high * 16 + low);
                    i += 2;
                } else {
                    value += raw[i] == '+' ? ' ' : raw[i];
                }
            }
            return value;
        }
        at = end + 1;
    }
    return {};
}

std::string http_lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool http_list_has(std::string_view value, std::string_view wanted) {
    std::string lowered = http_lower(wanted);
    for (size_t at = 0; at <= value.size();) {
        size_t end = std::min(value.find(',', at), value.size());
        if (http_lower(trim(value.substr(at, end - at))) == lowered) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

std::string http_response(unsigned status, const std::vector<std::string>& headers,
                          std::string_view body, bool with_body) {
    std::string out = "HTTP/1.1 " + std::to_string(status) + " " + reason_phrase(status) + "\r\n";
    for (const std::string& header : headers) {
        out += header + "\r\n";
    }
    if (status != 101) {
        out += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n";
    }
    out += "\r\n";
    if (with_body) {
        out += body;
    }
    return out;
}

std::string http_refusal(unsigned status, std::string_view why,
                         const std::vector<std::string>& headers) {
    std::vector<std::string> all = headers;
    all.push_back("Content-Type: text/plain; charset=utf-8");
    return http_response(status, all, std::string(why) + "\n");
}
