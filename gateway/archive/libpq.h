// PostgreSQL's client library. It brings 15 more libraries and 4 MiB into the process, which a
// gateway whose rows stay in its own file does without: it is loaded, not linked. Used by
// postgres_connection.cpp.
#pragma once

#include <libpq-fe.h>

namespace qn {

// Its functions, named like the library's without the prefix. Stays loaded until the process ends.
class Libpq {
 public:
  // Loads it at the first call. Throws std::runtime_error for the operator when that fails; then
  // the next call tries again.
  static const Libpq& loaded();

 private:
  struct Symbol {
    void* address;
    template <class Function>
    operator Function*() const {
      return reinterpret_cast<Function*>(address);
    }
  };

  Libpq();
  Symbol symbol(const char* name) const;

  void* const library_;

 public:
  decltype(::PQclear)* const clear = symbol("PQclear");
  decltype(::PQconnectPoll)* const connectPoll = symbol("PQconnectPoll");
  decltype(::PQconnectStartParams)* const connectStartParams = symbol("PQconnectStartParams");
  decltype(::PQconninfoFree)* const conninfoFree = symbol("PQconninfoFree");
  decltype(::PQconninfoParse)* const conninfoParse = symbol("PQconninfoParse");
  decltype(::PQconsumeInput)* const consumeInput = symbol("PQconsumeInput");
  decltype(::PQerrorMessage)* const errorMessage = symbol("PQerrorMessage");
  decltype(::PQfinish)* const finish = symbol("PQfinish");
  decltype(::PQflush)* const flush = symbol("PQflush");
  decltype(::PQfreemem)* const freemem = symbol("PQfreemem");
  decltype(::PQgetResult)* const getResult = symbol("PQgetResult");
  decltype(::PQgetvalue)* const getvalue = symbol("PQgetvalue");
  decltype(::PQisBusy)* const isBusy = symbol("PQisBusy");
  decltype(::PQntuples)* const ntuples = symbol("PQntuples");
  decltype(::PQputCopyData)* const putCopyData = symbol("PQputCopyData");
  decltype(::PQputCopyEnd)* const putCopyEnd = symbol("PQputCopyEnd");
  decltype(::PQresultErrorField)* const resultErrorField = symbol("PQresultErrorField");
  decltype(::PQresultErrorMessage)* const resultErrorMessage = symbol("PQresultErrorMessage");
  decltype(::PQresultStatus)* const resultStatus = symbol("PQresultStatus");
  decltype(::PQsendQuery)* const sendQuery = symbol("PQsendQuery");
  decltype(::PQsendQueryParams)* const sendQueryParams = symbol("PQsendQueryParams");
  decltype(::PQsetNoticeProcessor)* const setNoticeProcessor = symbol("PQsetNoticeProcessor");
  decltype(::PQsetnonblocking)* const setnonblocking = symbol("PQsetnonblocking");
  decltype(::PQsocket)* const socket = symbol("PQsocket");
  decltype(::PQstatus)* const status = symbol("PQstatus");
};

}  // namespace qn
