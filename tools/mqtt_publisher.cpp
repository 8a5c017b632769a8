#include "mqtt_publisher.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <mosquitto.h>

namespace orvacli {

namespace {

// Messages handed to the client and not yet acknowledged; past this, new ones are counted
// undelivered rather than held.
constexpr long kMaxInflight = 2000;

void libraryInit() {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

MqttPublisher::MqttPublisher(const std::string& address) : _address(address), _host(address) {
  const size_t colon = address.rfind(':');
  if (colon != std::string::npos && address.find(']') == std::string::npos) {
    _host = address.substr(0, colon);
    const std::string p = address.substr(colon + 1);
    char* end = nullptr;
    const long port = std::strtol(p.c_str(), &end, 10);
    if (p.empty() || *end || port <= 0 || port > 65535)
      throw std::runtime_error("--mqtt " + address + ": expected HOST[:PORT], PORT in 1..65535");
    _port = (int)port;
  }
  if (_host.empty()) throw std::runtime_error("--mqtt " + address + ": expected HOST[:PORT]");
  if (colon == std::string::npos) _address += ":1883";
  libraryInit();
  const std::string id = "orva-" + std::to_string(getpid()) + "-" +
                         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() % 1000000);
  _mosq = mosquitto_new(id.c_str(), true, this);
  if (!_mosq) throw std::runtime_error("mqtt " + _address + ": can't create a client");
  mosquitto_connect_callback_set(_mosq, onConnect);
  mosquitto_disconnect_callback_set(_mosq, onDisconnect);
  mosquitto_publish_callback_set(_mosq, onPublish);
  mosquitto_max_inflight_messages_set(_mosq, 100);
  mosquitto_threaded_set(_mosq, true);
}

MqttPublisher::~MqttPublisher() {
  finish(0);
  mosquitto_destroy(_mosq);
}

void MqttPublisher::onConnect(mosquitto*, void* self, int rc) {
  auto* p = static_cast<MqttPublisher*>(self);
  p->_last_rc = rc;
  if (rc == 0) {
    ++p->_connects;
    p->_connected = true;
  }
  p->_tried = true;
}

void MqttPublisher::onDisconnect(mosquitto*, void* self, int) { static_cast<MqttPublisher*>(self)->_connected = false; }

void MqttPublisher::onPublish(mosquitto*, void* self, int) {
  auto* p = static_cast<MqttPublisher*>(self);
  ++p->_delivered;
  --p->_inflight;
}

// Connects, serves the connection until it is lost, and tries again after 1, 2, 4 .. 16 s;
// the first connection is made the same way, so a broker that comes up late is found too.
void MqttPublisher::networkLoop() {
  double delay = 1;
  while (!_stopping) {
    const long connects = _connects;
    int rc = mosquitto_connect(_mosq, _host.c_str(), _port, 30);
    if (rc == MOSQ_ERR_SUCCESS) {
      while (!_stopping && mosquitto_loop(_mosq, 100, 1) == MOSQ_ERR_SUCCESS) {
      }
    } else {
      _last_errno = rc == MOSQ_ERR_ERRNO ? errno : 0;
      _last_rc = -rc;
      _tried = true;
    }
    _connected = false;
    if (_connects != connects) delay = 1;
    for (double slept = 0; slept < delay && !_stopping; slept += 0.05)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    delay = std::min(16.0, delay * 2);
  }
}

bool MqttPublisher::start(double wait_s, std::string& why) {
  _thread = std::thread(&MqttPublisher::networkLoop, this);
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_s);
  while (!_connected && !_tried && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (_connected) return true;
  const int rc = _last_rc;
  if (rc > 0)
    why = mosquitto_connack_string(rc);
  else if (rc < 0 && _last_errno)
    why = strerror(_last_errno);
  else if (rc < 0)
    why = mosquitto_strerror(-rc);
  else
    why = "no answer within " + std::to_string((int)wait_s) + " s";
  return false;
}

void MqttPublisher::publish(const std::string& topic, const std::string& payload) {
  if (!_connected || _inflight >= kMaxInflight) {
    ++_undelivered;
    return;
  }
  ++_inflight;
  const int rc = mosquitto_publish(_mosq, nullptr, topic.c_str(), (int)payload.size(), payload.data(), 1, false);
  if (rc != MOSQ_ERR_SUCCESS) {
    --_inflight;
    ++_undelivered;
    return;
  }
  ++_published;
}

void MqttPublisher::finish(double wait_s) {
  if (!_thread.joinable()) return;
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_s);
  while (_inflight > 0 && _connected && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  _stopping = true;
  mosquitto_disconnect(_mosq);
  _thread.join();
  _undelivered += std::max(0L, _inflight.exchange(0));
}

}  // namespace orvacli
