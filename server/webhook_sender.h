// Delivers the service's events to its webhooks: each event becomes one signed JSON POST per
// webhook, queued and sent by a background sender, retried with growing delays, and dropped
// (with one log line) when the queue overflows or the attempts run out.
//
// Every POST carries these headers:
//   Content-Type: application/json
//   X-Saffra-Event: the event's name ("session.ended", "batch.closed", "review.decided")
//   X-Saffra-Delivery: the delivery's id, unique per event and webhook, the same on retries
//   X-Saffra-Signature: "sha256=" and the lower-case hex HMAC-SHA256 of the exact body bytes,
//                       keyed with the webhook's secret
// and a body that begins with "event", "deliveryId" and "occurredAt" (UTC, seconds), followed
// by the event's own fields.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "saffra/platform/json.h"
#include "server/service.h"

namespace saffra::server {

/// The background sender of webhook deliveries. With no webhooks it sends nothing and starts
/// no thread.
class WebhookSender {
 public:
  WebhookSender(std::vector<Webhook> webhooks, WebhookDelivery delivery);
  /// Stops as stop() does.
  ~WebhookSender();
  WebhookSender(const WebhookSender&) = delete;
  WebhookSender& operator=(const WebhookSender&) = delete;

  /// Whether there is any webhook to send to.
  bool enabled() const { return enabled_; }

  /// Queues one delivery of the event per webhook and returns at once; never waits for a
  /// receiver. `fields` (an object) follows "event", "deliveryId" and "occurredAt" in the body.
  /// Events sent after stop() are dropped.
  void send(const std::string& event, const Json& fields);

  /// Sends what is queued (retries included, without further retries), waits at most the stop
  /// grace for it, then cancels what is left with one log line. Returns promptly whatever the
  /// receivers do; calling it again does nothing.
  void stop();

  /// "sha256=<hex>": the HMAC-SHA256 of `body` keyed with `secret`.
  static std::string signature(std::string_view secret, std::string_view body);

  /// Throws ServiceError unless every webhook has an http:// or https:// address and a secret.
  static void validate(const std::vector<Webhook>& webhooks);

 private:
  struct Impl;
  bool enabled_;
  std::shared_ptr<Impl> impl_;
};

}  // namespace saffra::server
