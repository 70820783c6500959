// The open alert streams, by their ids and by their devices. A member of CEventPto, guarded by the
// lock beside it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string_view>

#include "alert/alert_stream_session.h"

namespace QNKAVROProtocol {

class SessionTable {
 public:
  using Session = std::shared_ptr<CAlertStreamSession>;

  SessionTable() = default;
  // With the first session.
  explicit SessionTable(const Session& session) {
    byId_.emplace(session->getSessionID(), session);
    byDevice_.insert(session.get());
  }

  // Takes over the sessions of a table without ids of this one. Needs no memory.
  void merge(SessionTable& table) noexcept {
    byId_.merge(table.byId_);
    byDevice_.merge(table.byDevice_);
  }
  void erase(int32_t id) {
    if (const auto found = byId_.find(id); found != byId_.end()) erase(found);
  }
  template <class Predicate>
  void eraseIf(Predicate goes) {
    for (auto at = byId_.begin(); at != byId_.end();) at = goes(*at->second) ? erase(at) : ++at;
  }
  void clear() {
    byDevice_.clear();
    byId_.clear();
  }

  bool empty() const { return byId_.empty(); }
  // In ascending order of their ids.
  const std::map<int32_t, Session>& byId() const { return byId_; }
  template <class Visitor>
  void visitDevice(std::string_view devIndex, Visitor visit) const {
    const auto [first, last] = byDevice_.equal_range(devIndex);
    for (auto at = first; at != last; ++at) visit(byId_.find((*at)->getSessionID())->second);
  }

 private:
  using ById = std::map<int32_t, Session>;
  // By device, then by id.
  struct DeviceOrder {
    using is_transparent = void;  // NOLINT(readability-identifier-naming): the library's name
    using One = const CAlertStreamSession*;

    bool operator()(One a, One b) const {
      const int order = a->getDeviceIndex().compare(b->getDeviceIndex());
      return order != 0 ? order < 0 : a->getSessionID() < b->getSessionID();
    }
    bool operator()(One a, std::string_view b) const { return a->getDeviceIndex() < b; }
    bool operator()(std::string_view a, One b) const { return a < b->getDeviceIndex(); }
  };

  ById::iterator erase(ById::iterator at) {
    byDevice_.erase(at->second.get());
    return byId_.erase(at);
  }

  ById byId_;
  std::set<const CAlertStreamSession*, DeviceOrder> byDevice_;
};

}  // namespace QNKAVROProtocol
