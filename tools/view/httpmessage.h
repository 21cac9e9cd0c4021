#pragma once

// HTTP/1.1 messages as the view speaks them (RFC 9112): a request's line and
// headers parsed within a bound, and whole responses written. Requests have
// no body here.

#include <map>
#include <string>
#include <string_view>
#include <vector>

// Request line and headers together may take this many bytes.
constexpr size_t HTTP_MAX_REQUEST_HEAD = 8 * 1024;

struct http_request_t {
    std::string method;
    std::string target;                                        // as sent: path and query
    bool http11 = false;                                       // else HTTP/1.0
    std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
};

// Parses the head of a request at the start of `bytes`: 0 while it is
// incomplete and within the bound, else 200 with `request` filled in and
// `head_size` set, or the status that refuses it (400 malformed, 431 too
// large, 505 another version).
unsigned http_request_parse(std::string_view bytes, http_request_t& request, size_t& head_size);
// A header's value (the first, when repeated); empty when absent.
std::string http_request_header(const http_request_t& request, std::string_view name);
// How many times a header is present.
size_t http_request_header_count(const http_request_t& request, std::string_view name);
// The target's path, without its query.
std::string http_request_path(const http_request_t& request);
// A query parameter, percent-decoded; empty when absent.
std::string http_request_query(const http_request_t& request, std::string_view name);
// `text` in lower case (ASCII): names and schemes compare so.
std::string http_lower(std::string_view text);
// Whether a comma-separated header value holds `token`, ignoring case.
bool http_list_has(std::string_view value, std::string_view token);

// A whole response that ends the connection; `headers` are whole lines
// without their CRLF. Without `with_body` (HEAD), the body's length is
// told and the body left out.
std::string http_response(unsigned status, const std::vector<std::string>& headers,
                          std::string_view body, bool with_body = true);
// A refusal: the status with a line of text saying why.
std::string http_refusal(unsigned status, std::string_view why,
                         const std::vector<std::string>& headers = {});
