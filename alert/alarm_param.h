// One delivery job of an alert stream: a part on its way through the delivery pool.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "alert/alert_stream_session.h"

namespace QNKAVROProtocol {

enum ENUM_ALARM_TYPE : int { ALARM_XML = 0, ALARM_JSON = 1 };

// A part as all streams of a device get it: written once, shared by their jobs.
class AlarmPart {
 public:
  // A type without a content type of its own gets no part header.
  AlarmPart(std::string_view body, ENUM_ALARM_TYPE type);

  const std::string& bytes() const { return bytes_; }
  std::string_view body() const { return std::string_view(bytes_).substr(headerSize_); }
  ENUM_ALARM_TYPE type() const { return type_; }

 private:
  std::string bytes_;
  std::size_t headerSize_;
  ENUM_ALARM_TYPE type_;
};

// Made by whoever queues it, deleted by the routine that runs it. Keeps its session alive.
class CAlarmParam {
 public:
  // A part of its own, which no others wait for.
  CAlarmParam(const std::string& text, std::shared_ptr<CAlertStreamSession> session, void* user,
              ENUM_ALARM_TYPE type)
      : part_(std::make_shared<const AlarmPart>(text, type)),
        session_(std::move(session)),
        user_(user),
        isExpected_(false) {}
  // A part that the session expects.
  CAlarmParam(std::shared_ptr<const AlarmPart> part, std::shared_ptr<CAlertStreamSession> session,
              void* user)
      : part_(std::move(part)), session_(std::move(session)), user_(user), isExpected_(true) {}

  const std::shared_ptr<CAlertStreamSession>& getAlertStreamSession() const { return session_; }
  std::string getAlarmXmlRsp() const { return std::string(part_->body()); }
  void* getUserPtr() const { return user_; }
  ENUM_ALARM_TYPE getAlarmType() const { return part_->type(); }
  const std::shared_ptr<const AlarmPart>& part() const { return part_; }
  bool isExpected() const { return isExpected_; }

 private:
  const std::shared_ptr<const AlarmPart> part_;
  const std::shared_ptr<CAlertStreamSession> session_;
  void* const user_;
  const bool isExpected_;
};

}  // namespace QNKAVROProtocol
