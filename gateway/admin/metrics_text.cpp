// See metrics_text.h.
#include "gateway/admin/metrics_text.h"

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <iterator>
#include <ostream>
#include <streambuf>
#include <unordered_map>
#include <utility>

#include "gateway/admin/process.h"
#include "gateway/metrics/counts.h"

namespace qn {

std::vector<ObservedDevice> observedDevices(DeviceDirectory& directory,
                                            const Configuration& configuration) {
  std::unordered_map<std::string_view, std::shared_ptr<Device>> known;
  for (auto& device : directory.all()) {
    const std::string_view index = device->config.index;
    known.emplace(index, std::move(device));
  }
  std::vector<ObservedDevice> found;
  found.reserve(configuration.devices.size());
  for (const DeviceConfig& config : configuration.devices) {
    const auto device = known.find(config.index);
    found.push_back({&config, device == known.end() ? nullptr : device->second});
  }
  return found;
}

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr double kNanoseconds = 1e-9;
constexpr double kMicroseconds = 1e-6;

constexpr const char* kMethodNames[] = {"GET", "PUT", "POST", "DELETE", "other"};
static_assert(std::size(kMethodNames) == kCountedMethods);
constexpr const char* kClassNames[] = {"2xx", "4xx", "5xx"};
static_assert(std::size(kClassNames) == kStatusClasses);

struct RefusalName {
  OwnAnswer answer;
  const char* name;
};
constexpr RefusalName kRefusalNames[] = {
    {OwnAnswer::Malformed, "malformed"},           {OwnAnswer::RequestTimeout, "too_slow"},
    {OwnAnswer::BodyTooLarge, "body_too_large"},   {OwnAnswer::HeadTooLarge, "head_too_large"},
    {OwnAnswer::NotImplemented, "unknown_method"}, {OwnAnswer::Overloaded, "overloaded"},
};

// One metric with its series.
class Family {
 public:
  using Labels = std::vector<ClientMetric::Label>;

  Family(MetricFamily& family, MetricType type) : family_(family), isCounter_(type == kCounter) {
    family_.type = type;
  }
  static constexpr MetricType kCounter = MetricType::Counter;
  static constexpr MetricType kGauge = MetricType::Gauge;

  Family& add(Labels labels, double value) {
    ClientMetric& metric = addMetric(std::move(labels));
    (isCounter_ ? metric.counter.value : metric.gauge.value) = value;
    return *this;
  }
  ClientMetric& addMetric(Labels labels) {
    ClientMetric& metric = family_.metric.emplace_back();
    metric.label = std::move(labels);
    return metric;
  }
  void reserve(std::size_t series) { family_.metric.reserve(series); }

 private:
  MetricFamily& family_;
  const bool isCounter_;
};

// Collects everything anew each time it is asked.
class Collector final : public prometheus::Collectable {
 public:
  explicit Collector(const Observed& observed) : observed_(observed) {}

  std::vector<MetricFamily> Collect() const override {
    Round round(observed_);
    round.requests();
    round.connections();
    round.streams();
    round.logins();
    round.budgets();
    round.pools();
    round.stores();
    round.engines();
    round.cluster();
    round.gateway();
    round.process();
    round.devices();
    return {std::make_move_iterator(round.families.begin()),
            std::make_move_iterator(round.families.end())};
  }

 private:
  struct Round {
    explicit Round(const Observed& of)
        : observed(of), http(of.http.counts()), load(of.http.load()) {}

    Family family(const char* name, const char* help, MetricType type) {
      MetricFamily& made = families.emplace_back();
      made.name = name;
      made.help = help;
      return {made, type};
    }
    Family counter(const char* name, const char* help) {
      return family(name, help, Family::kCounter);
    }
    Family gauge(const char* name, const char* help) { return family(name, help, Family::kGauge); }
    void counter(const char* name, const char* help, double value) {
      counter(name, help).add({}, value);
    }
    void gauge(const char* name, const char* help, double value) {
      gauge(name, help).add({}, value);
    }
    template <class Counts, const auto& kBounds>
    void histogram(const char* name, const char* help, const Sharded<Counts>& counts,
                   Histogram<kBounds> Counts::*of);

    double answered(std::size_t resource, std::size_t method, std::size_t status) const {
      return double(http.sum([=](const HttpCounts& counts) {
        return counts.answered[resource][method][status].value();
      }));
    }

    void requests();
    void requestsByResource();
    void connections();
    void handshakes();
    void streams();
    void logins();
    void budgets();
    void pools();
    void stores();
    void operationLog();
    void pictures();
    void engines();
    void cluster();
    void gateway();
    void configuration();
    void process();
    void devices();

    const Observed& observed;
    const Sharded<HttpCounts>& http;
    const ServiceLoad load;
    std::deque<MetricFamily> families;  // whose elements stay where they are
  };

  const Observed& observed_;
};

template <class Counts, const auto& kBounds>
void Collector::Round::histogram(const char* name, const char* help, const Sharded<Counts>& counts,
                                 Histogram<kBounds> Counts::*of) {
  auto& out = family(name, help, MetricType::Histogram).addMetric({}).histogram;
  for (std::size_t i = 0; i <= std::size(kBounds); ++i) {
    out.sample_count += counts.sum([=](const Counts& each) { return (each.*of).inBucket(i); });
    const double bound = i < std::size(kBounds) ? double(kBounds[i]) * kMicroseconds : INFINITY;
    out.bucket.push_back({out.sample_count, bound});
  }
  out.sample_sum =
      double(counts.sum([=](const Counts& each) { return (each.*of).nanoseconds(); })) *
      kNanoseconds;
}

void Collector::Round::requests() {
  requestsByResource();
  counter("qn_http_requests_abandoned_total", "Requests whose client went before the answer.",
          double(http.sum(&HttpCounts::abandoned)));
  Family refused =
      counter("qn_http_refused_total", "What was refused before it was a whole request.");
  for (const RefusalName& row : kRefusalNames) {
    const auto count = http.sum([&row](const HttpCounts& counts) {
      return counts.refused[static_cast<std::size_t>(row.answer)].value();
    });
    refused.add({{"reason", row.name}}, double(count));
  }
  histogram("qn_http_gateway_duration_seconds",
            "The gateway's own part of a request's time, without waiting for a device.", http,
            &HttpCounts::ownTime);
  histogram("qn_bus_device_duration_seconds",
            "How long a request waited for its device, in the queue and for the reply.",
            observed.bus.counts(), &BusCounts::deviceTime);
  gauge("qn_http_requests_in_flight", "Requests that are being answered.", double(load.requests));
  gauge("qn_http_requests_limit", "Requests that may be in flight.", double(load.mostRequests));
}

// Pictures without their methods: they are only read.
void Collector::Round::requestsByResource() {
  constexpr auto kPicture = static_cast<std::size_t>(ResourceFamily::Picture);
  Family requests = counter("qn_http_requests_total", "Requests answered, without pictures.");
  for (std::size_t resource = 0; resource < kResourceFamilies; ++resource) {
    for (std::size_t method = 0; method < kCountedMethods && resource != kPicture; ++method) {
      for (std::size_t status = 0; status < kStatusClasses; ++status) {
        requests.add({{"resource", kFamilyNames[resource]},
                      {"method", kMethodNames[method]},
                      {"code", kClassNames[status]}},
                     answered(resource, method, status));
      }
    }
  }
  Family pictures = counter("qn_http_picture_requests_total", "Requests for stored pictures.");
  for (std::size_t status = 0; status < kStatusClasses; ++status) {
    double all = 0;
    for (std::size_t method = 0; method < kCountedMethods; ++method) {
      all += answered(kPicture, method, status);
    }
    pictures.add({{"code", kClassNames[status]}}, all);
  }
}

void Collector::Round::connections() {
  gauge("qn_http_connections", "Connections of clients.", double(load.connections));
  gauge("qn_http_connections_limit", "Connections that clients may have.",
        double(load.mostConnections));
  counter("qn_http_connections_accepted_total", "Connections accepted.",
          double(http.sum(&HttpCounts::accepted)));
  counter("qn_http_connections_refused_total",
          "Connections refused: too many, in all or of one client.",
          double(http.sum(&HttpCounts::turnedAway)));
  counter("qn_http_received_bytes_total", "Bytes from clients.",
          double(http.sum(&HttpCounts::received)));
  counter("qn_http_sent_bytes_total", "Bytes to clients.", double(http.sum(&HttpCounts::sent)));
  handshakes();
}

void Collector::Round::handshakes() {
  counter("qn_tls_handshakes_total", "TLS handshakes with clients.")
      .add({{"result", "full"}}, double(http.sum(&HttpCounts::handshakesFull)))
      .add({{"result", "resumed"}}, double(http.sum(&HttpCounts::handshakesResumed)))
      .add({{"result", "failed"}}, double(http.sum(&HttpCounts::handshakesFailed)));
  gauge("qn_tls_handshakes_under_way", "TLS handshakes that are not finished.",
        double(load.handshakes));
  Family expiries = gauge("qn_tls_certificate_expiry_seconds",
                          "When a certificate of HTTPS, or of those it was issued by, expires.");
  for (const CertificateConfig& each : qn::configuration()->https.inUse()) {
    expiries.add({{"certificate", each.certificate}},
                 std::chrono::duration<double>(each.expires.time_since_epoch()).count());
  }
}

void Collector::Round::streams() {
  const auto closed = http.sum(&HttpCounts::streamsClosed);  // first: it is never the larger one
  const auto opened = http.sum(&HttpCounts::streamsOpened);
  gauge("qn_streams", "Open alert streams.", double(opened - closed));
  counter("qn_streams_opened_total", "Alert streams opened.", double(opened));
  counter("qn_stream_parts_sent_total", "Parts that went out on alert streams.",
          double(http.sum(&HttpCounts::partsSent)));
  counter("qn_stream_parts_dropped_total",
          "Parts that did not: the client reads too slowly, or went.",
          double(http.sum(&HttpCounts::partsDropped)));
}

void Collector::Round::logins() {
  const auto& counts = observed.login.counts();
  counter("qn_logins_total", "Logins of clients; each request is one.")
      .add({{"result", "admitted"}}, double(counts.sum(&LoginCounts::admitted)))
      .add({{"result", "no_credentials"}}, double(counts.sum(&LoginCounts::withoutCredentials)))
      .add({{"result", "stale"}}, double(counts.sum(&LoginCounts::stale)))
      .add({{"result", "wrong"}}, double(counts.sum(&LoginCounts::wrong)))
      .add({{"result", "locked"}}, double(counts.sum(&LoginCounts::whileLocked)))
      .add({{"result", "not_allowed"}}, double(counts.sum(&LoginCounts::notAllowed)));
  counter("qn_login_locks_total", "Addresses that became locked.",
          double(counts.sum(&LoginCounts::locks)));
  gauge("qn_login_locked_addresses", "Addresses that are locked.",
        double(observed.login.locks(Lockout::kSets * Lockout::kSetSize).size()));
}

void Collector::Round::budgets() {
  const BusOptions& options = qn::configuration()->bus;
  const auto& bus = observed.bus.counts();
  const std::pair<const char*, ServiceLoad::Budget> all[] = {
      {"bodies", load.bodies},
      {"strangers_bodies", load.strangersBodies},
      {"answers", load.answers},
      {"bus", {observed.bus.bytes(), options.bytes, bus.sum(&BusCounts::refusedFull)}},
      {"replies",
       {observed.bus.replyMemory(), options.replyMemory, bus.sum(&BusCounts::refusedReplies)}},
  };
  Family bytes = gauge("qn_budget_bytes", "Memory held for clients and devices.");
  for (const auto& [name, budget] : all) bytes.add({{"budget", name}}, double(budget.bytes));
  Family most = gauge("qn_budget_limit_bytes", "Memory that may be held.");
  for (const auto& [name, budget] : all) most.add({{"budget", name}}, double(budget.most));
  Family refusals = counter("qn_budget_refusals_total", "What found no room in a budget.");
  for (const auto& [name, budget] : all) refusals.add({{"budget", name}}, double(budget.refusals));
  counter("qn_bus_refused_total", "Requests that the bus refused for another reason than room.",
          double(bus.sum(&BusCounts::refusedOther)));
}

void Collector::Round::pools() {
  std::vector<std::pair<const char*, WorkerPool::Load>> all;
  for (const auto& [name, pool] : observed.pools) all.emplace_back(name, pool.load());
  Family threads = gauge("qn_pool_threads", "Threads of a worker pool.");
  for (const auto& [name, pool] : all) threads.add({{"pool", name}}, double(pool.threads));
  Family waiting = gauge("qn_pool_queue_length", "Jobs that wait for a thread.");
  for (const auto& [name, pool] : all) waiting.add({{"pool", name}}, double(pool.waiting));
  Family refused = counter("qn_pool_refused_total", "Jobs that found the queue full.");
  for (const auto& [name, pool] : all) refused.add({{"pool", name}}, double(pool.refused));
}

void Collector::Round::stores() {
  operationLog();
  pictures();
}

void Collector::Round::operationLog() {
  const OperationLog::Load log = observed.operations.load();
  gauge("qn_operation_log_up", "1 while the operation log can be written.", log.isFailing ? 0 : 1);
  gauge("qn_operation_log_queue_length", "Records that wait for the disk.", double(log.waiting));
  gauge("qn_operation_log_queue_limit", "Records that may wait; more are lost.",
        double(OperationLog::kQueueLimit));
  counter("qn_operation_log_written_total", "Records written.", double(log.written));
  counter("qn_operation_log_lost_total", "Records lost.", double(log.lost));
}

void Collector::Round::pictures() {
  const PictureStore::Load store = observed.pictures.load();
  gauge("qn_pictures", "Stored pictures.", double(store.pictures));
  gauge("qn_pictures_limit", "Pictures that may be stored.", double(store.maxCount));
  gauge("qn_picture_bytes", "Size of the stored pictures.", double(store.bytes));
  gauge("qn_picture_limit_bytes", "Size that stored pictures may have.", double(store.maxBytes));
  counter("qn_pictures_stored_total", "Pictures stored.", double(store.stored));
  counter("qn_pictures_dropped_total", "Pictures that went for newer ones.", double(store.dropped));
  counter("qn_pictures_refused_total", "Uploads that could not be stored.", double(store.refused));
}

// Nothing without engines.
void Collector::Round::engines() {
  if (observed.engines.empty()) return;
  Family up = gauge("qn_engine_up", "1 while an engine that the gateways share can be used.");
  for (const EngineState* each : observed.engines) up.add({{"engine", each->name()}}, each->isUp());
  Family outages = counter("qn_engine_outages_total", "Times that an engine was lost.");
  for (const EngineState* each : observed.engines) {
    outages.add({{"engine", each->name()}}, double(each->outages()));
  }
  if (!observed.archive.engine()) return;
  const OperationArchive::Load rows = observed.archive.load();
  counter("qn_operation_log_sent_total", "Rows sent to the shared database.", double(rows.sent));
  counter("qn_operation_log_unsent_total", "Rows dropped before they could be sent.",
          double(rows.lost));
  gauge("qn_operation_log_unsent", "Rows that wait for the shared database.", double(rows.waiting));
}

// Nothing in a gateway by itself.
void Collector::Round::cluster() {
  if (!observed.cluster) return;
  const auto& [dropped, feeds, logins] = *observed.cluster;
  const struct {
    const char* name;
    const char* help;
    const Counter& value;
  } kRows[] = {
      {"qn_redis_commands_dropped_total", "Commands that found no room in the queue.", dropped},
      {"qn_cluster_alarms_published_total", "Alarms given to Redis.", feeds.published},
      {"qn_cluster_alarms_unpublished_total", "Alarms that Redis did not take.", feeds.unpublished},
      {"qn_cluster_alarms_refused_total", "Alarms under a lease that had ended.", feeds.refused},
      {"qn_cluster_alarms_received_total", "Alarms of other gateways.", feeds.received},
      {"qn_cluster_alarms_filled_total", "The same, fetched after a gap.", feeds.filled},
      {"qn_cluster_alarms_missed_total", "Alarms of gaps that stayed.", feeds.missed},
      {"qn_cluster_failures_published_total", "Failed logins told to others.", logins.failures},
      {"qn_cluster_nonces_taken_total", "Nonces taken from others.", logins.noncesTaken},
      {"qn_cluster_nonces_given_total", "Nonces that others took.", logins.noncesGiven},
  };
  for (const auto& [name, help, value] : kRows) counter(name, help, double(value.value()));
  Family lost = counter("qn_cluster_nonces_lost_total", "Nonces of others that did not come.");
  for (std::size_t i = 0; i < kNonceLossNames.size(); ++i) {
    lost.add({{"reason", kNonceLossNames[i]}}, double(logins.noncesLost[i].value()));
  }
}

void Collector::Round::gateway() {
  Pulse::Clock::duration longest{0};
  const auto silences = observed.pulse.silences();
  for (const auto silence : silences) longest = std::max(longest, silence);
  gauge("qn_reactors", "I/O threads.", double(silences.size()));
  gauge("qn_reactor_silence_seconds", "The longest time that one of them has not run.",
        std::chrono::duration<double>(longest).count());
  gauge("qn_ready", "1 while the gateway takes requests.",
        observed.health.againstReadiness().empty() ? 1 : 0);
  gauge("qn_build_info", "Always 1; the version is in the label.")
      .add({{"version", observed.version}}, 1);
  configuration();
}

void Collector::Round::configuration() {
  const auto& inForce = qn::configuration();
  gauge("qn_configuration_info", "Always 1; what is in force is in the labels.")
      .add({{"mode", std::to_string(inForce->kavro.mode)},
            {"algorithm", std::string(algorithmName(inForce->kavro.algorithm))},
            {"users", std::to_string(inForce->users.size())}},
           1);
  const Reloads::State reload = observed.reloads.state();
  gauge("qn_configuration_reload_success", "1 unless the last reload was refused.",
        reload.refusal.empty() ? 1 : 0);
  gauge("qn_configuration_time_seconds", "When the configuration in force was taken.",
        std::chrono::duration<double>(reload.time.time_since_epoch()).count());
}

void Collector::Round::process() {
  const ProcessFigures figures = processFigures();
  counter("process_cpu_seconds_total", "CPU time of the process.", figures.cpuSeconds);
  gauge("process_resident_memory_bytes", "Memory that the process has.", figures.residentBytes);
  gauge("process_open_fds", "Open descriptors.", figures.openDescriptors);
  gauge("process_max_fds", "Descriptors that may be open.", figures.mostDescriptors);
  gauge("process_threads", "Threads of the process.", figures.threads);
  gauge("process_start_time_seconds", "When the process was started.", figures.startTime);
}

// Of a device that nobody has asked yet everything is 0, but that it is up for all that is known.
void Collector::Round::devices() {
  const auto& inForce = qn::configuration();
  const auto all = observedDevices(observed.devices, *inForce);
  gauge("qn_devices", "Configured devices.", double(all.size()));
  const auto each = [&](Family family, auto value, double unknown = 0) {
    family.reserve(all.size());
    for (const auto& [config, device] : all) {
      family.add({{"device", config->index}}, device ? double(value(*device)) : unknown);
    }
  };
  each(
      gauge("qn_device_up", "0 while the device does not answer and is only probed."),
      [](const Device& device) { return !device.circuit.isOpen(); }, 1);
  each(gauge("qn_device_login_refused", "1 while the device refuses the gateway's login."),
       [](const Device& device) { return device.login.rests(); });
  each(gauge("qn_device_alarm_stream_up", "1 while alarms can come from the device."),
       [](const Device& device) { return device.counts.alarmsFlow.load(); });
  each(counter("qn_device_alarms_total", "Alarms of the device, heartbeats included."),
       [](const Device& device) { return device.counts.alarms.value(); });
  each(gauge("qn_device_requests_in_flight", "Requests that the device is answering."),
       [](const Device& device) { return device.counts.inFlight.load(); });
  each(gauge("qn_device_requests_waiting", "Requests that wait for a connection to the device."),
       [](const Device& device) {
         const std::size_t inFlight = device.counts.inFlight;
         return std::max<std::size_t>(device.admitted, inFlight) - inFlight;
       });
  each(counter("qn_device_refused_total", "Requests that found the device's queue full."),
       [](const Device& device) { return device.counts.turnedAway.value(); });
  Family failures =
      counter("qn_device_failures_total", "Requests that the device did not answer, by reason.");
  failures.reserve(3 * all.size());
  Family durations = family("qn_device_duration_seconds",
                            "How long requests waited for the device.", MetricType::Summary);
  durations.reserve(all.size());
  for (const auto& [config, device] : all) {
    static const DeviceCounts kNone;
    const DeviceCounts& counts = device ? device->counts : kNone;
    const auto label = [&config = config](const char* reason) {
      return Family::Labels{{"device", config->index}, {"reason", reason}};
    };
    failures.add(label("timeout"), double(counts.timedOut.value()))
        .add(label("unreachable"), double(counts.unreachable.value()))
        .add(label("unusable"), double(counts.unusable.value()));
    auto& summary = durations.addMetric({{"device", config->index}}).summary;
    summary.sample_count = counts.answered.value() + counts.timedOut.value() +
                           counts.unreachable.value() + counts.unusable.value();
    summary.sample_sum = double(counts.nanoseconds.value()) * kNanoseconds;
  }
}

// Appends to a text, without the copy that a string stream makes at the end.
class TextBuffer final : public std::streambuf {
 public:
  std::string take() { return std::move(text_); }

 private:
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) text_ += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    text_.append(bytes, static_cast<std::size_t>(count));
    return count;
  }

  std::string text_;
};

}  // namespace

std::string metricsText(const Observed& observed) {
  TextBuffer buffer;
  std::ostream out(&buffer);
  prometheus::TextSerializer().Serialize(out, Collector(observed).Collect());
  return buffer.take();
}

}  // namespace qn
