// URL helpers that every request handler inherits. The reference implementation is gateway/base.
#pragma once

#include <string>
#include <string_view>

namespace QNBase {

class CRESTfulProtocol {
 public:
  // The query has format=json.
  virtual bool IsJsonURL(const std::string& url);
  // The query has language=cn.
  virtual bool isLanguageCNURL(const std::string& url);
  // The query has a devIndex parameter.
  virtual bool isDeviceURL(const std::string& url);

  // The method's name for a code of CHttpExchange::getMethod(); empty for others.
  static const char* GetMethod(unsigned char method);
  // True when the part of url before "?" equals `path`: case and a trailing slash count.
  static bool cmpURL(std::string_view url, std::string_view path);
  // The same with a pattern in which each "%d" stands for 1 to 10 decimal digits of a value up to
  // 2147483647, without sign. `count` is the number of placeholders; a pattern with another number
  // of them matches nothing.
  static bool cmpURLWithInt(std::string_view url, std::string_view pattern, int count);

 protected:
  CRESTfulProtocol() = default;
  ~CRESTfulProtocol() = default;
};

}  // namespace QNBase
