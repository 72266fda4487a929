// Statuses of a response. Pure functions: any thread, no lock.
#pragma once

namespace host {

// Statuses that can stand in the head of a final response: from this one to that.
constexpr int kFirstStatus = 200;
constexpr int kLastStatus = 999;

constexpr int kOk = 200;
constexpr int kNoContent = 204;
constexpr int kPartialContent = 206;
constexpr int kMovedPermanently = 301;
constexpr int kNotModified = 304;
constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kPreconditionFailed = 412;
constexpr int kContentTooLarge = 413;
constexpr int kUriTooLong = 414;
constexpr int kRangeNotSatisfiable = 416;
constexpr int kExpectationFailed = 417;
constexpr int kHeadTooLarge = 431;
constexpr int kServerError = 500;
constexpr int kNotImplemented = 501;
constexpr int kVersionNotSupported = 505;

// The usual reason of a status, or "Status" for one that has none.
[[nodiscard]] const char* usualReason(int status);

// True for a status whose responses never have a body.
[[nodiscard]] bool isHeadOnly(int status);

}  // namespace host
