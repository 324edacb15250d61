// ocpctl commands that read or administer one actuator: info, params,
// save, clear, factory-reset, address, blink, home, start, stop, bootloader.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <filesystem>
#include <system_error>

#include <nlohmann/json.hpp>
#include <ocp_api/identifier_tables.hpp>

#include "catalogue.hpp"
#include "commands.hpp"
#include "parameters_file.hpp"
#include "session.hpp"

namespace ocpctl {

namespace {

using ParameterMap = ocp_api::OrreryActuator::ParameterMap;

// JSON has no NaN: an unknown value is null.
nlohmann::ordered_json json_number(float value) {
    if (std::isnan(value) || std::isinf(value)) return nullptr;
    return value;
}

void print_parameters(int address, const std::vector<Parameter>& ids, const ParameterMap& values, bool json) {
    if (json) {
        nlohmann::ordered_json result;
        result["address"] = address;
        result["hex"] = hex(address);
        nlohmann::ordered_json parameters = nlohmann::ordered_json::object();
        for (const auto id : ids) parameters[std::string(ocp_api::parameter_name(id))] = json_number(values.at(id));
        result["parameters"] = parameters;
        std::printf("%s\n", result.dump(2).c_str());
        return;
    }
    for (const auto id : ids)
        std::printf("%-22s %s\n", std::string(ocp_api::parameter_name(id)).c_str(),
                    describe_value(id, values.at(id)).c_str());
}

// Reads `ids` from the device, or throws DeviceError if any stays unanswered.
ParameterMap read_parameters(Session& session, int address, const std::vector<Parameter>& ids, float timeout_s) {
    const ParameterMap values = session.actuator().get_parameters(ids, timeout_s);
    for (const auto id : ids) {
        if (values.count(id) == 0)
            throw DeviceError("no answer from " + hex(address) + " for " + std::string(ocp_api::parameter_name(id)) +
                              " after " + format_seconds(timeout_s));
    }
    return values;
}

// ---------------------------------------------------------------- info

struct InfoOptions {
    std::string address;
    bool json = false;
};

int run_info(const InfoOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    Session session(global, address, OnExit::LeaveAsFound);
    auto& actuator = session.actuator();
    const auto& all_items = ocp_api::OrreryActuator::ALL_ITEMS;
    const std::vector<Item> items(all_items.begin(), all_items.end());
    const auto values = actuator.getItemsBlocking(items, global.timeout_s);
    if (values.empty())
        throw DeviceError("no answer from " + hex(address) + " to the feedback request after " +
                          format_seconds(global.timeout_s));
    if (options.json) {
        nlohmann::ordered_json result;
        result["address"] = address;
        result["hex"] = hex(address);
        result["model"] = actuator.get_model_name();
        result["firmware"] = actuator.get_firmware_version();
        result["connected"] = actuator.is_connected();
        nlohmann::ordered_json feedback = nlohmann::ordered_json::object();
        for (const auto item : items) {
            const auto found = values.find(item);
            if (found != values.end()) feedback[std::string(ocp_api::item_name(item))] = json_number(found->second);
        }
        result["feedback"] = feedback;
        std::printf("%s\n", result.dump(2).c_str());
        return 0;
    }
    std::printf("%-16s %s\n", "address", hex(address).c_str());
    std::printf("%-16s %s\n", "model", actuator.get_model_name().c_str());
    std::printf("%-16s %s\n", "firmware", actuator.get_firmware_version().c_str());
    std::printf("%-16s %s\n", "connected", actuator.is_connected() ? "yes" : "no");
    for (const auto item : items) {
        const auto found = values.find(item);
        if (found != values.end())
            std::printf("%-16s %s\n", std::string(ocp_api::item_name(item)).c_str(),
                        describe_value(item, found->second).c_str());
    }
    return 0;
}

// ---------------------------------------------------------------- params

// A parameter's value as typed: a number, or for MODE also a mode's name,
// since MODE prints as "7 (POSITION)".
float parse_parameter_value(Parameter id, const std::string& text) {
    if (id == Parameter::MODE) {
        if (const auto mode = ocp_api::mode_from_name<Mode>(text)) return static_cast<float>(ocp_api::code_of(*mode));
    }
    return parse_float(text, std::string(ocp_api::parameter_name(id)) + " value");
}

struct ParamsGetOptions {
    std::string address;
    std::vector<std::string> names;
    bool json = false;
};

int run_params_get(const ParamsGetOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    std::vector<Parameter> ids;
    for (const auto& name : options.names) ids.push_back(parse_parameter(name));
    const auto& all_parameters = ocp_api::OrreryActuator::ALL_PARAMETERS;
    if (ids.empty()) ids.assign(all_parameters.begin(), all_parameters.end());
    Session session(global, address, OnExit::LeaveAsFound);
    print_parameters(address, ids, read_parameters(session, address, ids, global.timeout_s), options.json);
    return 0;
}

struct ParamsSetOptions {
    std::string address;
    std::vector<std::string> assignments;
    bool force = false;
};

int run_params_set(const ParamsSetOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    ParameterMap values;
    std::vector<Parameter> ids;
    for (const auto& assignment : options.assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos)
            throw UsageError("expected NAME=VALUE, got '" + assignment + "' (for example LIMIT_TORQUE=2.5)");
        const Parameter id = parse_parameter(assignment.substr(0, equals));
        if (id == Parameter::ADDRESS)
            throw UsageError("ADDRESS is changed with 'ocpctl address ADDR NEW', which follows the device");
        const float value = parse_parameter_value(id, assignment.substr(equals + 1));
        if (values.count(id) == 0) ids.push_back(id);
        values[id] = value;
    }
    check_parameter_values(ParameterValues(values.begin(), values.end()), options.force, "");
    Session session(global, address, OnExit::LeaveAsFound);
    session.actuator().set_parameters(values);
    // What the device holds now, which is what took effect.
    print_parameters(address, ids, read_parameters(session, address, ids, global.timeout_s), false);
    return 0;
}

// ---------------------------------------------------------------- params dump / load

// A parameters file of `ids` with the values `values` holds for them.
std::string parameters_text(int address, const std::vector<Parameter>& ids, const ParameterMap& values) {
    ParameterValues entries;
    for (const auto id : ids) entries.emplace_back(id, values.at(id));
    return parameters_file_text(address, entries);
}

// Writes the text to `path`, or to standard output when it is empty.
void write_document(const std::string& text, const std::string& path) {
    if (path.empty()) {
        std::fputs(text.c_str(), stdout);
        return;
    }
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) throw UsageError("cannot write " + shorten(path) + ": " + std::strerror(errno));
}

// Fails before the bus is opened when the file cannot be written.
void check_writable(const std::string& path) {
    if (path.empty()) return;
    std::FILE* file = std::fopen(path.c_str(), "a");
    if (file == nullptr) throw UsageError("cannot write " + shorten(path) + ": " + std::strerror(errno));
    std::fclose(file);
}

struct ParamsDumpOptions {
    std::string address;
    std::string out;
};

int run_params_dump(const ParamsDumpOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    check_writable(options.out);
    const std::vector<Parameter> ids(ocp_api::OrreryActuator::ALL_PARAMETERS.begin(), ocp_api::OrreryActuator::ALL_PARAMETERS.end());
    Session session(global, address, OnExit::LeaveAsFound);
    write_document(parameters_text(address, ids, read_parameters(session, address, ids, global.timeout_s)), options.out);
    return 0;
}

struct ParamsLoadOptions {
    std::string address;
    std::string file;
    std::string out;
    bool save = false;
    bool force = false;
};

// The text of a parameters file, refused before it is opened when it is not
// a regular file (a directory, or a FIFO that would wait for a writer) and
// before it is read when it is too large to be one.
std::string read_parameters_text(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error) throw UsageError("cannot read " + shorten(path) + ": " + error.message());
    if (std::filesystem::is_directory(status)) throw UsageError(shorten(path) + " is a directory, not a parameters file");
    if (!std::filesystem::is_regular_file(status))
        throw UsageError(shorten(path) + " is not a regular file (write one with ocpctl params dump)");
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (!error && size > MAX_PARAMETERS_FILE_BYTES)
        throw UsageError(shorten(path) + " is " + std::to_string(size) + " bytes; a parameters file is at most " +
                         std::to_string(MAX_PARAMETERS_FILE_BYTES) + " bytes");
    std::ifstream file(path, std::ios::binary);
    if (!file) throw UsageError("cannot read " + shorten(path) + ": " + std::strerror(errno));
    std::string text(MAX_PARAMETERS_FILE_BYTES + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > MAX_PARAMETERS_FILE_BYTES)  // it grew after the size was taken
        throw UsageError(shorten(path) + " is over " + std::to_string(MAX_PARAMETERS_FILE_BYTES) + " bytes");
    return text;
}

// Reads and checks the whole file; nothing is sent before this succeeds.
ParameterValues read_parameters_file(const std::string& path, int address, bool force) {
    ParametersFile file = parse_parameters_file(read_parameters_text(path), path, address, force);
    if (!file.ok()) throw UsageError(file.error);
    return std::move(file.entries);
}

int run_params_load(const ParamsLoadOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const auto entries = read_parameters_file(options.file, address, options.force);
    check_writable(options.out);
    ParameterMap values;
    std::vector<Parameter> ids;
    for (const auto& [id, value] : entries) {
        ids.push_back(id);
        // The address is checked above; writing it would only repeat it.
        if (id != Parameter::ADDRESS) values[id] = value;
    }
    Session session(global, address, OnExit::LeaveAsFound);
    session.actuator().set_parameters(values);
    // One read serves the comparison and, with --out, the whole document.
    const std::vector<Parameter> all(ocp_api::OrreryActuator::ALL_PARAMETERS.begin(),
                                     ocp_api::OrreryActuator::ALL_PARAMETERS.end());
    const ParameterMap held = read_parameters(session, address, options.out.empty() ? ids : all, global.timeout_s);
    std::size_t differing = 0;
    for (const auto& [id, value] : entries) {
        if (held.at(id) == value) continue;
        ++differing;
        std::printf("%-22s wrote %s, the device holds %s\n", std::string(ocp_api::parameter_name(id)).c_str(),
                    describe_value(id, value).c_str(), describe_value(id, held.at(id)).c_str());
    }
    if (!options.out.empty()) write_document(parameters_text(address, all, held), options.out);
    if (differing != 0) {
        std::printf("%s: %zu of %zu parameters differ from the file; nothing saved\n", hex(address).c_str(), differing,
                    entries.size());
        return EXIT_DEVICE;
    }
    if (options.save) session.actuator().save_config();
    std::printf("%s: %zu parameters loaded and read back equal%s\n", hex(address).c_str(), entries.size(),
                options.save ? "; configuration saved" : " (not saved: ocpctl save or --save keeps them)");
    return 0;
}

// ---------------------------------------------------------------- simple commands

struct AddressOnly {
    std::string address;
    bool yes = false;
};

using Action = std::function<std::string(Session&, int address)>;

int run_simple(const AddressOnly& options, const GlobalOptions& global, OnExit on_exit, const Action& action) {
    const int address = parse_address(options.address);
    Session session(global, address, on_exit);
    std::printf("%s\n", action(session, address).c_str());
    return 0;
}

void add_simple(CLI::App& parent, const GlobalOptions& global, Runner& runner, const std::string& name,
                const std::string& description, OnExit on_exit, Action action, bool needs_yes = false) {
    auto options = std::make_shared<AddressOnly>();
    CLI::App* command = parent.add_subcommand(name, description);
    command->add_option("ADDR", options->address, "Actuator address, such as 0x21")->required();
    if (needs_yes) command->add_flag("--yes", options->yes, "Confirm");
    command->footer("Example:\n  ocpctl " + name + " 0x21" + (needs_yes ? " --yes" : ""));
    command->callback([&runner, &global, options, on_exit, action, name, needs_yes] {
        runner = [&global, options, on_exit, action, name, needs_yes] {
            if (needs_yes && !options->yes)
                throw UsageError(name + " needs --yes: the device leaves normal operation until it is power-cycled");
            return run_simple(*options, global, on_exit, action);
        };
    });
}

// ---------------------------------------------------------------- address

struct AddressOptions {
    std::string address;
    std::string new_address;
    bool save = false;
    bool force = false;
};

int run_address(const AddressOptions& options, const GlobalOptions& global) {
    const int address = parse_address(options.address);
    const int new_address = parse_address(options.new_address);
    if (new_address == address) throw UsageError("the device already has address " + hex(address));
    Session session(global, address, OnExit::LeaveAsFound);
    // Two devices on one address answer together and cannot be told apart
    // (nor separated) any more.
    if (!options.force && answers_at(session.transport(), new_address, global.timeout_s))
        throw UsageError("another device answers at " + hex(new_address) + "; " + hex(address) +
                         " stays where it is (--force moves it anyway)");
    session.actuator().changeAddress(new_address);
    if (options.save) session.actuator().save_config();
    session.release_actuator();
    // The old registration stays with the transport after an address change.
    session.transport().removeCallback(address);
    connect_actuator(session.transport(), new_address, global.timeout_s).reset();
    std::printf("%s -> %s (%s)\n", hex(address).c_str(), hex(new_address).c_str(),
                options.save ? "saved" : ("not saved: back at " + hex(address) + " after a power cycle").c_str());
    return 0;
}

}  // namespace

void add_device_commands(CLI::App& app, const GlobalOptions& global, Runner& runner) {
    {
        auto options = std::make_shared<InfoOptions>();
        CLI::App* info = app.add_subcommand("info", "Model, firmware and current feedback of one actuator");
        info->add_option("ADDR", options->address, "Actuator address, such as 0x21")->required();
        info->add_flag("--json", options->json, "Print the result as JSON");
        info->footer("Examples:\n  ocpctl info 0x21\n  ocpctl info 0x21 --json");
        info->callback([&runner, &global, options] { runner = [&global, options] { return run_info(*options, global); }; });
    }
    {
        CLI::App* params = app.add_subcommand("params", "Read or write device parameters");
        params->require_subcommand(1);
        params->footer("Examples:\n  ocpctl params get 0x21 MODE\n  ocpctl params dump 0x21 --out 0x21.json\n"
                       "  ocpctl params load 0x21 0x21.json --save");
        auto get_options = std::make_shared<ParamsGetOptions>();
        CLI::App* get = params->add_subcommand("get", "Read parameters (all 31 when no name is given)");
        get->add_option("ADDR", get_options->address, "Actuator address")->required();
        get->add_option("NAME", get_options->names, "Parameter names (case-insensitive) or codes");
        get->add_flag("--json", get_options->json, "Print the result as JSON");
        get->footer("Examples:\n  ocpctl params get 0x21\n  ocpctl params get 0x21 limit_torque 0x80 --json");
        get->callback([&runner, &global, get_options] {
            runner = [&global, get_options] { return run_params_get(*get_options, global); };
        });
        auto set_options = std::make_shared<ParamsSetOptions>();
        CLI::App* set = params->add_subcommand("set", "Write parameters, then print what the device holds");
        set->add_option("ADDR", set_options->address, "Actuator address")->required();
        set->add_option("NAME=VALUE", set_options->assignments, "Assignments")->required();
        set->add_flag("--force", set_options->force,
                      "Send values a parameter cannot hold and minimum limits above their maximum");
        set->footer("A value its parameter cannot hold (MODE=3, CAN_HIGH_SPEED=5, a minimum limit\n"
                    "above its maximum) ends with exit status 2 and sends nothing, unless --force.\n"
                    "MODE also takes a mode's name.\n"
                    "Example:\n  ocpctl params set 0x21 LIMIT_TORQUE=2.5 k_stiff=4 mode=position");
        set->callback([&runner, &global, set_options] {
            runner = [&global, set_options] { return run_params_set(*set_options, global); };
        });
        auto dump_options = std::make_shared<ParamsDumpOptions>();
        CLI::App* dump = params->add_subcommand("dump", "Print all parameters as JSON, with names, codes and values");
        dump->add_option("ADDR", dump_options->address, "Actuator address")->required();
        dump->add_option("--out", dump_options->out, "File to write (default: standard output)");
        dump->footer("Example:\n  ocpctl params dump 0x21 --out 0x21.json");
        dump->callback([&runner, &global, dump_options] {
            runner = [&global, dump_options] { return run_params_dump(*dump_options, global); };
        });
        auto load_options = std::make_shared<ParamsLoadOptions>();
        CLI::App* load = params->add_subcommand(
            "load", "Write the parameters of a JSON file, read them back and print what differs");
        load->add_option("ADDR", load_options->address, "Actuator address")->required();
        load->add_option("FILE", load_options->file, "A file written by params dump (or edited from one)")->required();
        load->add_option("--out", load_options->out, "Also write all parameters as read back afterwards");
        load->add_flag("--save", load_options->save, "Save the configuration when everything read back equal");
        load->add_flag("--force", load_options->force,
                       "Send values a parameter cannot hold and minimum limits above their maximum");
        load->footer("Every name and value is checked before anything is sent: a file that is not a\n"
                     "regular file, is over 1 MiB, gives a key twice, or holds a value its parameter\n"
                     "cannot hold (without --force) ends with exit status 2 and sends nothing. Exit\n"
                     "status 1 when the device holds a value other than the file's (it is printed;\n"
                     "nothing is saved).\n"
                     "Example:\n  ocpctl params load 0x21 0x21.json --save");
        load->callback([&runner, &global, load_options] {
            runner = [&global, load_options] { return run_params_load(*load_options, global); };
        });
    }
    add_simple(app, global, runner, "save", "Store the parameters in the device's non-volatile memory",
               OnExit::LeaveAsFound, [](Session& s, int a) {
                   s.actuator().save_config();
                   return hex(a) + ": configuration saved";
               });
    add_simple(app, global, runner, "clear", "Clear the stored configuration (the device resets)",
               OnExit::LeaveAsFound, [](Session& s, int a) {
                   s.actuator().clear_config();
                   return hex(a) + ": configuration cleared; the device resets to factory defaults";
               });
    add_simple(app, global, runner, "factory-reset", "Stop, silence and clear the device, and forget local state",
               OnExit::Stop, [](Session& s, int a) {
                   s.actuator().restore_factory_parameters(0.2f);
                   return hex(a) + ": factory parameters restored";
               });
    add_simple(app, global, runner, "blink", "Make the device blink to find it", OnExit::LeaveAsFound,
               [](Session& s, int a) {
                   s.actuator().blink();
                   return hex(a) + ": blinking";
               });
    add_simple(app, global, runner, "home", "Make the present position the zero position", OnExit::LeaveAsFound,
               [](Session& s, int a) {
                   s.actuator().set_home_position();
                   return hex(a) + ": home position set";
               });
    add_simple(app, global, runner, "start", "Enable the motor (it stays enabled when ocpctl exits)",
               OnExit::LeaveAsFound, [](Session& s, int a) {
                   s.actuator().start();
                   return hex(a) + ": started";
               });
    add_simple(app, global, runner, "stop", "Disable the motor", OnExit::Stop, [](Session& s, int a) {
        s.actuator().stop();
        return hex(a) + ": stopped";
    });
    add_simple(
        app, global, runner, "bootloader", "Enter the firmware boot loader (needs --yes)", OnExit::LeaveAsFound,
        [](Session& s, int a) {
            s.actuator().enter_bootloader();
            return hex(a) + ": in the boot loader until its next power cycle";
        },
        true);
    {
        auto options = std::make_shared<AddressOptions>();
        CLI::App* address = app.add_subcommand("address", "Give the device a new bus address");
        address->add_option("ADDR", options->address, "Present address")->required();
        address->add_option("NEW", options->new_address, "New address, 0x10..0x3FFE")->required();
        address->add_flag("--save", options->save, "Save the configuration so the address survives a power cycle");
        address->add_flag("--force", options->force, "Move even when another device answers at NEW");
        address->footer("A device already answering at NEW makes the command refuse, unless --force.\n"
                        "Example:\n  ocpctl address 0x21 0x30 --save");
        address->callback(
            [&runner, &global, options] { runner = [&global, options] { return run_address(*options, global); }; });
    }
}

}  // namespace ocpctl
