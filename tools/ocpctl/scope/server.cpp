#include "server.hpp"

#include <httplib.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include <nlohmann/json.hpp>

#include "../catalogue.hpp"
#include "assets.hpp"

namespace ocpctl::scope {

namespace {

using json = nlohmann::ordered_json;
using namespace std::chrono_literals;

// 10 s of 5 ms bins is 2000 points across a plot: about one per pixel
// column of a wide window, and a 1 kHz stream shrinks five times.
constexpr double BIN_S = 0.005;
constexpr double WINDOW_S = 10.0;
// Kept for a page that falls behind (a slow frame, a busy network).
constexpr std::size_t KEPT_BINS = 4096;
constexpr auto DATA_PERIOD = 33ms;    // 30 updates a second
constexpr int STATUS_EVERY = 8;       // status 4 times a second
constexpr int MAX_PAGES = 4;          // event streams at once

const char* quantity_of(Item item) {
    switch (item) {
        case Item::POS_FB_41:
        case Item::POS_FB_43:
        case Item::POS_FB_4C:
        case Item::POS_FB_73: return "position";
        case Item::SPD_FB_45: return "speed";
        case Item::T_FB_49:
        case Item::T_FB_56: return "torque";
        default: return "";
    }
}

const char* quantity_of(Mode mode) {
    switch (mode) {
        case Mode::TORQUE: return "torque";
        case Mode::SPEED: return "speed";
        case Mode::POSITION:
        case Mode::IMPEDANCE: return "position";
    }
    return "";
}

int64_t steady_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

json number_or_null(double value) {
    if (!std::isfinite(value)) return nullptr;
    return value;
}

void answer_json(httplib::Response& response, const json& body, int status = 200) {
    response.status = status;
    response.set_content(body.dump(), "application/json");
}

void answer_error(httplib::Response& response, int status, const std::string& message) {
    answer_json(response, json{{"error", message}}, status);
}

// The address a request names in its JSON body or query, as "0x21" or 33.
int address_of(const json& body) {
    if (!body.contains("address")) throw UsageError("no address given");
    const auto& address = body["address"];
    if (address.is_number_integer()) return parse_address(std::to_string(address.get<long long>()));
    if (address.is_string()) return parse_address(address.get<std::string>());
    throw UsageError("address is neither a number nor a text such as \"0x21\"");
}

json parse_body(const httplib::Request& request) {
    try {
        json body = json::parse(request.body);
        if (!body.is_object()) throw UsageError("the request body is not a JSON object");
        return body;
    } catch (const json::exception&) {
        throw UsageError("the request body is not JSON");
    }
}

std::string value_text(const json& value, const std::string& name) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number()) return value.dump();
    throw UsageError("the value of " + name + " is neither a number nor a text");
}

json parameter_rows(const std::vector<Parameter>& ids, const ParameterMap& values) {
    json rows = json::array();
    for (const auto id : ids) {
        const float value = values.at(id);
        rows.push_back({{"name", std::string(ocp_api::parameter_name(id))},
                        {"code", code_text(id)},
                        {"value", std::isfinite(value) ? format_value(value) : "nan"},
                        {"text", describe_value(id, value)},
                        {"meaning", std::string(parameter_meaning(id))},
                        {"integer", parameter_is_integer(id)}});
    }
    return rows;
}

}  // namespace

Trace::Trace(std::size_t channels) : decimator(channels + 1, BIN_S, KEPT_BINS), latest(channels) {
    for (auto& value : latest) value.store(NAN);
}

ScopeServer::ScopeServer(ScopeConfig config, AccessPolicy policy)
    : config_(std::move(config)),
      policy_(std::move(policy)),
      epoch_(std::chrono::steady_clock::now()),
      http_(std::make_unique<httplib::Server>()),
      presence_(steady_ns()) {}

void ScopeServer::attach(ScopeSource& source, TrafficTap* tap) {
    source_ = &source;
    tap_ = tap;
    devices_ = source.devices();
    for (const auto& device : devices_) traces_[device.address] = std::make_unique<Trace>(config_.items.size());
    install_routes();
}

ScopeServer::~ScopeServer() { shutdown(); }

double ScopeServer::now_s() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - epoch_).count();
}

void ScopeServer::start_streaming() {
    std::vector<Item> streamed = config_.items;
    if (std::find(streamed.begin(), streamed.end(), Item::ERRORS_90) == streamed.end())
        streamed.push_back(Item::ERRORS_90);
    source_->stream(streamed, config_.rate_hz, [this](int address, const FeedbackMap& feedback) {
        on_feedback(address, feedback);
    });
}

// Runs on the transport's receive thread for every streamed reply: no
// allocation, one short lock in the decimator.
void ScopeServer::on_feedback(int address, const FeedbackMap& feedback) {
    const auto found = traces_.find(address);
    if (found == traces_.end()) return;
    Trace& trace = *found->second;
    constexpr std::size_t MAX_CHANNELS = 64;
    float values[MAX_CHANNELS];
    const std::size_t count = std::min(config_.items.size(), MAX_CHANNELS - 1);
    for (std::size_t i = 0; i < count; ++i) {
        const auto value = feedback.find(config_.items[i]);
        values[i] = value == feedback.end() ? NAN : value->second;
        trace.latest[i].store(values[i]);
    }
    values[count] = trace.setpoint_shown.load();
    const auto errors = feedback.find(Item::ERRORS_90);
    if (errors != feedback.end()) {
        trace.error_word.store(static_cast<uint32_t>(errors->second));
        trace.errors_known.store(true);
    }
    trace.decimator.add(now_s(), values);
}

int ScopeServer::bind() {
    // The library's default would let a second scope share the port (and
    // its connections); only a quick restart may reuse it.
    http_->set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        // A page whose network is gone stops taking data; with a small send
        // buffer the event stream notices within seconds, not minutes.
        const int bytes = 64 * 1024;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    });
    const int port = config_.port == 0 ? http_->bind_to_any_port(config_.host)
                                       : (http_->bind_to_port(config_.host, config_.port) ? config_.port : -1);
    if (port <= 0)
        throw UsageError("cannot listen on " + config_.host + ":" + std::to_string(config_.port) +
                         " (in use, or not an address of this machine)");
    return port;
}

void ScopeServer::run() { http_->listen_after_bind(); }

void ScopeServer::shutdown() {
    stopping_.store(true);
    if (http_) http_->stop();
}

void ScopeServer::note_stopped(int address) { traces_.at(address)->setpoint_shown.store(NAN); }

std::vector<int> ScopeServer::enforce_grace() {
    if (presence_.present(steady_ns(), static_cast<int64_t>(config_.grace_s * 1e9))) return {};
    std::vector<int> stopped;
    for (const auto& device : devices_) {
        if (!source_->state(device.address).running) continue;
        source_->stop(device.address);
        note_stopped(device.address);
        stopped.push_back(device.address);
    }
    if (!stopped.empty()) {
        std::string list;
        for (const int address : stopped) list += (list.empty() ? "" : ", ") + hex(address);
        std::lock_guard<std::mutex> lock(notice_mutex_);
        notice_ = "No page was connected for " + format_seconds(config_.grace_s) + ": stopped " + list + ".";
        ++notice_number_;
    }
    return stopped;
}

std::string ScopeServer::config_json() const {
    json config;
    config["bus"] = config_.bus;
    config["rate_hz"] = config_.rate_hz;
    config["bin_s"] = BIN_S;
    config["window_s"] = WINDOW_S;
    config["grace_s"] = config_.grace_s;
    config["devices"] = json::array();
    for (const auto& device : devices_)
        config["devices"].push_back({{"address", device.address},
                                     {"hex", hex(device.address)},
                                     {"model", device.model},
                                     {"firmware", device.firmware}});
    config["items"] = json::array();
    for (const auto item : config_.items)
        config["items"].push_back({{"name", std::string(ocp_api::item_name(item))},
                                   {"meaning", std::string(item_meaning(item))},
                                   {"quantity", quantity_of(item)}});
    config["modes"] = json::array();
    for (const Mode mode : {Mode::TORQUE, Mode::SPEED, Mode::POSITION, Mode::IMPEDANCE})
        config["modes"].push_back({{"name", std::string(ocp_api::mode_name(mode))}, {"quantity", quantity_of(mode)}});
    return config.dump();
}

std::string ScopeServer::status_json() {
    const double now = now_s();
    uint64_t samples = 0;
    for (const auto& [address, trace] : traces_) samples += trace->decimator.samples();
    Rates rates;
    {
        std::lock_guard<std::mutex> lock(rates_mutex_);
        const double elapsed = now - rates_.time_s;
        if (elapsed >= 0.5) {
            rates_.samples_per_s = static_cast<double>(samples - rates_.samples) / elapsed;
            rates_.bytes_per_s = static_cast<double>(bytes_sent_.load() - rates_.bytes) / elapsed;
            rates_.time_s = now;
            rates_.samples = samples;
            rates_.bytes = bytes_sent_.load();
        }
        rates = rates_;
    }
    json status;
    status["time_s"] = now;
    status["devices"] = json::array();
    for (const auto& device : devices_) {
        const Trace& trace = *traces_.at(device.address);
        const DeviceState state = source_->state(device.address);
        json entry;
        entry["address"] = device.address;
        entry["mode"] = std::string(ocp_api::mode_name(state.mode));
        entry["quantity"] = quantity_of(state.mode);
        entry["running"] = state.running;
        entry["setpoint"] = number_or_null(state.setpoint);
        entry["device_running"] = state.device_running ? json(*state.device_running) : json(nullptr);
        // Age, freshness and faults as the group records them.
        entry["feedback_age_s"] = state.feedback_age_s ? json(*state.feedback_age_s) : json(nullptr);
        entry["feedback"] = state.feedback;
        entry["answering"] = state.answering;
        // The condition the device streams now, and the last error record the
        // group received (a condition may have passed without a record
        // clearing it).
        std::string fault = "unknown";
        if (trace.errors_known.load()) {
            const uint32_t word = trace.error_word.load();
            entry["error_word"] = word;
            fault = word == 0 ? std::string("none") : describe_value(Item::ERRORS_90, static_cast<float>(word));
        } else {
            entry["error_word"] = nullptr;
        }
        if (state.fault_word && *state.fault_word != 0) {
            std::string texts;
            for (const auto& text : state.fault_texts) texts += (texts.empty() ? "" : ", ") + text;
            entry["last_fault"] = texts;
            entry["last_fault_age_s"] = state.fault_age_s;
            fault += "; last record: " + texts + ", " + format_seconds(state.fault_age_s) + " ago";
        }
        entry["fault"] = fault;
        // Stopped by the group (a severe error, a restart): no setpoint drawn.
        if (!state.running) traces_.at(device.address)->setpoint_shown.store(NAN);
        json latest = json::array();
        for (const auto& value : trace.latest) latest.push_back(number_or_null(value.load()));
        entry["latest"] = latest;
        status["devices"].push_back(entry);
    }
    status["server"] = {{"samples_per_s", rates.samples_per_s},
                        {"bytes_per_s", rates.bytes_per_s},
                        {"pages", presence_.streams()}};
    if (tap_ != nullptr)
        status["traffic"] = {{"recording", tap_->recording()}, {"frames", tap_->frames()}, {"full", tap_->full()}};
    json statistics = json::array();
    for (const auto& [name, value] : source_->statistics()) statistics.push_back({name, value});
    status["statistics"] = statistics;
    json rows = json::array();
    for (const auto& row : source_->device_statistics())
        rows.push_back({{"address", row.address},
                        {"hex", hex(row.address)},
                        {"age_p50_ms", row.age_p50_ms},
                        {"age_p99_ms", row.age_p99_ms},
                        {"age_max_ms", row.age_max_ms},
                        {"fresh", row.fresh},
                        {"stale", row.stale},
                        {"missing", row.missing},
                        {"faults", row.faults},
                        {"restarts", row.restarts},
                        {"setpoints", row.setpoints},
                        {"superseded", row.superseded},
                        {"refused", row.refused}});
    status["group"] = rows;
    {
        std::lock_guard<std::mutex> lock(notice_mutex_);
        status["notice"] = notice_;
        status["notice_number"] = notice_number_;
    }
    return status.dump();
}

void ScopeServer::install_routes() {
    httplib::Server& http = *http_;
    http.set_payload_max_length(64 * 1024);
    http.set_read_timeout(5, 0);
    http.set_write_timeout(2, 0);

    http.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                              {"X-Frame-Options", "DENY"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Cache-Control", "no-store"}});

    http.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        RequestFacts facts;
        facts.method = request.method;
        facts.path = request.path;
        facts.host = request.get_header_value("Host");
        facts.origin = request.get_header_value("Origin");
        facts.fetch_site = request.get_header_value("Sec-Fetch-Site");
        facts.content_type = request.get_header_value("Content-Type");
        facts.token = request.has_header("X-Scope-Token") ? request.get_header_value("X-Scope-Token")
                                                          : request.get_param_value("token");
        const Verdict verdict = policy_.check(facts);
        if (verdict.status == 200) return httplib::Server::HandlerResponse::Unhandled;
        std::fprintf(stderr, "ocpctl: scope refused %s %s: %s\n", request.method.c_str(),
                     shorten(request.path).c_str(), shorten(verdict.reason).c_str());
        answer_error(response, verdict.status, verdict.reason);
        return httplib::Server::HandlerResponse::Handled;
    });

    http.set_exception_handler([](const httplib::Request&, httplib::Response& response, std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const UsageError& usage) {
            answer_error(response, 400, usage.what());
        } catch (const DeviceError& device) {
            answer_error(response, 504, device.what());
        } catch (const std::exception& other) {
            answer_error(response, 500, other.what());
        } catch (...) {
            answer_error(response, 500, "unexpected error");
        }
    });

    for (const Asset& asset : page_assets()) {
        http.Get(asset.path, [&asset](const httplib::Request&, httplib::Response& response) {
            response.set_content(asset.data, asset.size, asset.content_type);
        });
    }

    http.Get("/api/config", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(config_json(), "application/json");
    });
    http.Get("/api/status", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(status_json(), "application/json");
    });

    http.Get("/api/events", [this](const httplib::Request&, httplib::Response& response) {
        presence_.stream_opened();
        if (presence_.streams() > MAX_PAGES) {
            presence_.stream_closed();
            answer_error(response, 503, "too many pages open (at most " + std::to_string(MAX_PAGES) + ")");
            return;
        }
        // Each bin goes to this page once; a page opened later starts with
        // the window that is on screen.
        auto cursors = std::make_shared<std::map<int, int64_t>>();
        for (const auto& [address, trace] : traces_)
            (*cursors)[address] = trace->decimator.bin_index(now_s() - WINDOW_S);
        response.set_header("Cache-Control", "no-store");
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, cursors](std::size_t, httplib::DataSink& sink) {
                std::string message;
                message.reserve(64 * 1024);
                for (int tick = 0; !stopping_.load(); ++tick) {
                    message.clear();
                    if (tick % STATUS_EVERY == 0) message += "event: status\ndata: " + status_json() + "\n\n";
                    message += "event: data\ndata: {\"now\":";
                    append_number(message, now_s());
                    message += ",\"devices\":{";
                    bool first = true;
                    for (const auto& [address, trace] : traces_) {
                        const std::size_t before = message.size();
                        message += (first ? "\"" : ",\"") + std::to_string(address) + "\":";
                        if (trace->decimator.append_json(now_s(), &(*cursors)[address], message)) {
                            first = false;
                        } else {
                            message.resize(before);
                        }
                    }
                    message += "}}\n\n";
                    if (!sink.write(message.data(), message.size())) return false;
                    bytes_sent_.fetch_add(message.size());
                    presence_.stream_wrote(steady_ns());
                    // The wait in short slices, so that stopping ends it at once.
                    for (int slice = 0; slice < DATA_PERIOD / 3ms && !stopping_.load(); ++slice) std::this_thread::sleep_for(3ms);
                }
                sink.done();
                return true;
            },
            [this](bool) { presence_.stream_closed(); });
    });

    http.Post("/api/alive", [this](const httplib::Request& request, httplib::Response& response) {
        const json body = parse_body(request);
        presence_.heartbeat(steady_ns(), body.value("hidden", false));
        response.status = 204;
    });
    http.Post("/api/start", [this](const httplib::Request& request, httplib::Response& response) {
        const int address = address_of(parse_body(request));
        source_->start(address);
        const DeviceState state = source_->state(address);
        traces_.at(address)->setpoint_shown.store(state.setpoint);
        answer_json(response, {{"started", hex(address)}});
    });
    http.Post("/api/stop", [this](const httplib::Request& request, httplib::Response& response) {
        const int address = address_of(parse_body(request));
        source_->stop(address);
        note_stopped(address);
        answer_json(response, {{"stopped", hex(address)}});
    });
    http.Post("/api/stop_all", [this](const httplib::Request&, httplib::Response& response) {
        source_->stop_all();
        json stopped = json::array();
        for (const auto& device : devices_) {
            note_stopped(device.address);
            stopped.push_back(hex(device.address));
        }
        answer_json(response, {{"stopped", stopped}});
    });
    http.Post("/api/mode", [this](const httplib::Request& request, httplib::Response& response) {
        const json body = parse_body(request);
        const int address = address_of(body);
        if (!body.contains("mode") || !body["mode"].is_string()) throw UsageError("no mode given");
        const Mode mode = parse_mode(body["mode"].get<std::string>());
        source_->set_mode(address, mode);
        traces_.at(address)->setpoint_shown.store(NAN);
        answer_json(response, {{"address", hex(address)}, {"mode", std::string(ocp_api::mode_name(mode))}});
    });
    http.Post("/api/setpoint", [this](const httplib::Request& request, httplib::Response& response) {
        const json body = parse_body(request);
        const int address = address_of(body);
        if (!body.contains("value")) throw UsageError("no setpoint value given");
        const float value = parse_float(value_text(body["value"], "setpoint"), "setpoint");
        source_->set_setpoint(address, value);
        if (source_->state(address).running) traces_.at(address)->setpoint_shown.store(value);
        answer_json(response, {{"address", hex(address)}, {"setpoint", value}});
    });

    // Only on the simulated bus: cuts the emulated device's power, to see the
    // group set it up again and the page show it stopped.
    http.Post("/api/power_cycle", [this](const httplib::Request& request, httplib::Response& response) {
        const int address = address_of(parse_body(request));
        source_->power_cycle(address);
        answer_json(response, {{"power_cycled", hex(address)}});
    });

    http.Get("/api/params", [this](const httplib::Request& request, httplib::Response& response) {
        const int address = parse_address(request.get_param_value("address"));
        const std::vector<Parameter> ids(ocp_api::OrreryActuator::ALL_PARAMETERS.begin(),
                                         ocp_api::OrreryActuator::ALL_PARAMETERS.end());
        answer_json(response, {{"address", hex(address)}, {"parameters", parameter_rows(ids, source_->read_parameters(address, ids))}});
    });
    // The checks of `ocpctl params set`: known names, no ADDRESS, finite
    // numbers; nothing is sent unless every assignment passes.
    http.Post("/api/params", [this](const httplib::Request& request, httplib::Response& response) {
        const json body = parse_body(request);
        const int address = address_of(body);
        if (!body.contains("values") || !body["values"].is_object() || body["values"].empty())
            throw UsageError("no parameter values given (expected {\"values\": {\"NAME\": value}})");
        ParameterMap values;
        std::vector<Parameter> ids;
        for (const auto& [name, value] : body["values"].items()) {
            const Parameter id = parse_parameter(name);
            if (id == Parameter::ADDRESS)
                throw UsageError("ADDRESS is changed with 'ocpctl address ADDR NEW', which follows the device");
            const std::string parameter(ocp_api::parameter_name(id));
            const float number = parse_float(value_text(value, parameter), parameter + " value");
            if (values.count(id) == 0) ids.push_back(id);
            values[id] = number;
        }
        source_->write_parameters(address, values);
        answer_json(response, {{"address", hex(address)}, {"parameters", parameter_rows(ids, source_->read_parameters(address, ids))}});
    });
    http.Post("/api/save", [this](const httplib::Request& request, httplib::Response& response) {
        const int address = address_of(parse_body(request));
        source_->save(address);
        answer_json(response, {{"saved", hex(address)}});
    });

    http.Post("/api/traffic/start", [this](const httplib::Request&, httplib::Response& response) {
        if (tap_ == nullptr) throw UsageError("this source records no traffic");
        tap_->start();
        answer_json(response, {{"recording", true}});
    });
    http.Post("/api/traffic/stop", [this](const httplib::Request&, httplib::Response& response) {
        if (tap_ == nullptr) throw UsageError("this source records no traffic");
        tap_->stop();
        answer_json(response, {{"recording", false}, {"frames", tap_->frames()}});
    });
    http.Get("/api/traffic.log", [this](const httplib::Request&, httplib::Response& response) {
        if (tap_ == nullptr) throw UsageError("this source records no traffic");
        response.set_header("Content-Disposition", "attachment; filename=\"scope-traffic.log\"");
        response.set_content(tap_->log(), "text/plain; charset=utf-8");
    });
}

}  // namespace ocpctl::scope
