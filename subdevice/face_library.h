// The face records of a device, each with the picture that was fetched from its "faceURL".
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <map>
#include <string>

namespace subdevice {

class FaceLibrary {
 public:
  static constexpr std::size_t kFaces = 32;  // the oldest goes when one more comes

  explicit FaceLibrary(boost::asio::io_context& io) : io_(io) {}

  // Stores the record and begins to fetch its picture, when it names one.
  void add(const std::string& name, const Json::Value& record);
  // The records with what became of their pictures.
  Json::Value document() const;
  // Null when there is no such face or its picture has not come.
  const std::string* picture(int id) const;
  // False when there is none of that name.
  bool removePicture(const std::string& name);

 private:
  struct Face {
    std::string name;  // the "employeeNo", "FPID" or name it was stored under
    Json::Value record;
    std::string picture;
    std::string state;  // none, fetching, stored, failed
  };

  boost::asio::io_context& io_;
  std::map<int, Face> faces_;
  int nextId_ = 1;
};

}  // namespace subdevice
