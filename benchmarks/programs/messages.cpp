/* SPDX-License-Identifier: MIT */
#include "messages.h"

#include <array>
#include <string_view>

namespace benchmarks
{

namespace
{

constexpr std::string_view TOPIC = "benchmark";
constexpr guint8 CONNECT = 0x10;
constexpr guint8 PUBLISH = 0x30;
constexpr guint8 SUBSCRIBE = 0x82;
constexpr guint8 CLEAN_SESSION = 0x02;
constexpr char PROTOCOL_LEVEL = 4;

std::string
make_object(guint id)
{
  return "{\"Id\":" + std::to_string(id) +
         ",\"BoundingBox\":{\"Left\":-0.25,\"Top\":0.5,\"Right\":0.25,\"Bottom\":-0.5},\"Type\":\"Human\","
         "\"Likelihood\":0.96}";
}

/* A text with its length in two bytes before it, as MQTT has all texts. */
std::string
make_mqtt_text(std::string_view text)
{
  std::string result = {static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xffU)};

  return result.append(text);
}

std::string
make_mqtt_packet(guint8 type, std::string_view rest)
{
  std::string packet(1, static_cast<char>(type));
  gsize length = rest.size();

  do {
    const auto group = static_cast<guint8>(length & 0x7fU);
    length >>= 7;
    packet.push_back(static_cast<char>(length > 0 ? group | 0x80U : group));
  } while (length > 0);
  return packet.append(rest);
}

} // namespace

/**
 * make_item:
 * @size: the length of the text, at least 50
 *
 * Returns: one producer's item with as many objects as fit, and blanks
 */
std::string
make_item(gsize size)
{
  constexpr std::string_view START = "{\"Objects\":[";
  constexpr std::string_view END = "]}";
  std::string objects;

  for (guint id = 1;; id++) {
    const std::string object = (id > 1 ? "," : "") + make_object(id);
    if (START.size() + objects.size() + object.size() + END.size() > size) {
      break;
    }
    objects += object;
  }
  std::string item(START);
  item += objects.empty() ? R"({"Id":1,"Type":"Human"})" : objects;
  item += END;
  item.resize(size, ' ');
  return item;
}

/**
 * make_producer_message:
 * @size: the length of the item, at least 50
 *
 * Returns: the item with its length before it, as a producer writes it
 */
std::string
make_producer_message(gsize size)
{
  const auto length = static_cast<guint32>(size);

  return std::string(reinterpret_cast<const char *>(&length), sizeof length) + make_item(size);
}

/**
 * make_mqtt_message:
 * @size: the length of the item, at least 50
 *
 * Returns: a packet that publishes the item with quality of service 0
 */
std::string
make_mqtt_message(gsize size)
{
  return make_mqtt_packet(PUBLISH, make_mqtt_text(TOPIC) + make_item(size));
}

/**
 * make_mqtt_connect:
 * @number: of the connection, for the client's identifier
 *
 * Returns: the first packet of a connection, without a keep-alive time
 */
std::string
make_mqtt_connect(guint number)
{
  const std::string fixed = {PROTOCOL_LEVEL, static_cast<char>(CLEAN_SESSION), 0, 0};

  return make_mqtt_packet(CONNECT,
                          make_mqtt_text("MQTT") + fixed + make_mqtt_text("load" + std::to_string(number)));
}

/**
 * make_mqtt_subscribe:
 *
 * Returns: the packet that subscribes to what make_mqtt_message() publishes
 */
std::string
make_mqtt_subscribe()
{
  const std::string id = {0, 1};
  const std::string quality(1, '\0');

  return make_mqtt_packet(SUBSCRIBE, id + make_mqtt_text(TOPIC) + quality);
}

} // namespace benchmarks
