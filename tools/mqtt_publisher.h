// Events to an MQTT broker through libmosquitto, its network traffic on a thread of its own:
// publishing never waits on the broker. QoS 1; while the broker is away the client reconnects with growing delays and
// what could not be handed over is counted, never queued without bound.
#pragma once
#include <atomic>
#include <string>
#include <thread>

struct mosquitto;

namespace orvacli {

class MqttPublisher {
 public:
  // address: HOST or HOST:PORT (1883 when left out). Throws std::runtime_error on a bad address.
  explicit MqttPublisher(const std::string& address);
  ~MqttPublisher();
  MqttPublisher(const MqttPublisher&) = delete;
  MqttPublisher& operator=(const MqttPublisher&) = delete;

  // Starts connecting and waits up to wait_s for the broker's answer; false (with the reason)
  // when it has not answered yet. Reconnecting goes on in the background either way.
  bool start(double wait_s, std::string& why);
  // Hands one message over, or counts it undelivered when the broker is away or too many
  // messages wait for its acknowledgement.
  void publish(const std::string& topic, const std::string& payload);
  // Waits up to wait_s for the acknowledgements still due, then disconnects; what is still
  // unacknowledged counts as undelivered.
  void finish(double wait_s);

  const std::string& address() const { return _address; }
  long published() const { return _published; }
  long delivered() const { return _delivered; }
  long undelivered() const { return _undelivered; }
  long reconnects() const { return _connects > 0 ? _connects - 1 : 0; }

 private:
  static void onConnect(mosquitto*, void* self, int rc);
  static void onDisconnect(mosquitto*, void* self, int rc);
  static void onPublish(mosquitto*, void* self, int mid);

  std::string _address, _host;
  int _port = 1883;
  mosquitto* _mosq = nullptr;
  void networkLoop();

  std::thread _thread;
  std::atomic<bool> _stopping{false}, _connected{false}, _tried{false};
  std::atomic<int> _last_rc{0}, _last_errno{0};
  std::atomic<long> _published{0}, _delivered{0}, _undelivered{0}, _inflight{0}, _connects{0};
};

}  // namespace orvacli
