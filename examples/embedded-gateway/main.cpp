// The whole reference gateway inside a program of one's own, with two pieces of the program's:
// a resource that the program answers before the module is asked, and the operation log.
//   KAVRO_PASSWORD=... embedded-gateway PORT PICTURE_PORT DEVICE_URL DATA_FOLDER
// serves one device to the user "admin" until its standard input ends. With one argument, a
// configuration file, that says all of it.
#include <qn-kavro/QNKAVROProtocol.h>
#include <qn-kavro/embedded_gateway.h>
#include <qn-kavro/platform/gateway_cfg_bus.h>
#include <qn-kavro/version.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

// Instead of the gateway's database: a line for each operation. Any thread; must not block.
int QN_GatewayCfgBus_InsertLogInfo(const tagLogInfo& record) {
  std::printf("%s did %s\n", record.clientIp.c_str(), record.operation.c_str());
  return std::fflush(stdout);
}

// On the gateway's I/O threads, several at once; must not block.
static int answer(int& bodyIsXml, std::string& body, int& asyncReply,
                  const QNHttpService::stHttpRes& request) {
  if (request.exchange->getUrl() != "/hello") {
    return QN_Protocol_HTTPProcess(bodyIsXml, body, asyncReply, request);
  }
  bodyIsXml = 0;
  body = "{\"hello\":\"" + request.exchange->getHead("X-Forwarded-For") + "\"}";
  return 200;
}

static qn::GatewaySettings settings(int count, char** arguments) {
  if (count == 2) return qn::GatewaySettings::fromFile(arguments[1]);
  if (count != 5) throw std::invalid_argument("see the head of main.cpp for the arguments");
  const char* const password = std::getenv("KAVRO_PASSWORD");
  qn::GatewaySettings values;
  values.set("http.port", std::atoi(arguments[1]));
  values.set("network.picture_port", std::atoi(arguments[2]));
  values.set("storage.data_dir", arguments[4]);
  values.add("users", {{"name", "admin"}, {"password", password ? password : ""}, {"device", "1"}});
  values.add("devices", {{"index", "1"}, {"url", arguments[3]}});
  return values;
}

int main(int count, char** arguments) try {
  std::signal(SIGPIPE, SIG_IGN);  // the gateway leaves signals to the program
  qn::EmbeddedGateway gateway(
      {.module = {QN_Protocol_Init, QN_Protocol_Uninit, answer}});  // linked, so not loaded
  gateway.start(settings(count, arguments));
  std::cout << qn::platformVersion() << ": " << gateway.description() << std::endl;
  while (std::cin.get() != EOF) {
  }
  gateway.stop();
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
