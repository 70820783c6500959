// One delivery job of an alert stream: a part on its way through the delivery pool.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "alert/alert_stream_session.h"

namespace QNKAVROProtocol {

enum ENUM_ALARM_TYPE : int { ALARM_XML = 0, ALARM_JSON = 1 };

// Made by whoever queues it, deleted by the routine that runs it. Keeps its session alive.
class CAlarmParam {
 public:
  CAlarmParam(const std::string& text, std::shared_ptr<CAlertStreamSession> session, void* user,
              ENUM_ALARM_TYPE type)
      : text_(text), session_(std::move(session)), user_(user), type_(type) {}

  std::shared_ptr<CAlertStreamSession> getAlertStreamSession() const { return session_; }
  const std::string& getAlarmXmlRsp() const { return text_; }  // the body, without a part header
  void* getUserPtr() const { return user_; }
  ENUM_ALARM_TYPE getAlarmType() const { return type_; }

 private:
  const std::string text_;
  const std::shared_ptr<CAlertStreamSession> session_;
  void* const user_;
  const ENUM_ALARM_TYPE type_;
};

}  // namespace QNKAVROProtocol
