// Commands about one adapter.
#include "ipv4.h"
#include "session.h"

#include <algorithm>
#include <memory>
#include <cstring>

#include <fmt/format.h>

namespace ctl
{

namespace
{

constexpr size_t kMostAddresses = 8;
constexpr char kAdapterHelp[] = "Identifier, MAC address or name of the adapter";

// A list of the record as text; a count beyond its room is cut.
std::vector<std::string> FormatList(const uint32_t* addresses, uint32_t count)
{
    std::vector<std::string> texts;
    for (uint32_t i = 0; i < std::min<uint32_t>(count, kMostAddresses); ++i) {
        texts.push_back(FormatIPv4(addresses[i]));
    }
    return texts;
}

// The lists of a configuration, copied out of the packed record.
struct Lists {
    explicit Lists(const UserIPConfig& config)
    {
        for (uint32_t i = 0; i < std::min<uint32_t>(config.m_nIP, kMostAddresses); ++i) {
            addresses.push_back(config.m_Address[i]);
        }
        const auto copy = [](const uint8_t* words, uint32_t count) {
            uint32_t aligned[kMostAddresses];
            std::memcpy(aligned, words, sizeof(aligned));
            return FormatList(aligned, count);
        };
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&config);
        routers = copy(bytes + offsetof(UserIPConfig, RouterAddr), config.m_nGW);
        dhcpServers = copy(bytes + offsetof(UserIPConfig, DhcpServer), config.m_nDHCP);
        dnsServers = copy(bytes + offsetof(UserIPConfig, DnsServer), config.m_nDNS);
        for (const uint32_t server : {config.WinsServer1, config.WinsServer2}) {
            if (server != 0) { // they have no count
                winsServers.push_back(FormatIPv4(server));
            }
        }
    }

    bool IsEmpty() const
    {
        return addresses.empty() && routers.empty() && dhcpServers.empty() && dnsServers.empty() &&
               winsServers.empty();
    }

    std::vector<UserIPAddress> addresses;
    std::vector<std::string> routers, dhcpServers, dnsServers, winsServers;
};

void PrintIPConfigJson(const UserIPConfig& config, const Lists& lists)
{
    Json addresses = Json::array();
    for (const UserIPAddress& address : lists.addresses) {
        addresses.push_back({{"address", FormatIPv4(address.IpAddress)},
                             {"netmask", FormatIPv4(address.Netmask)},
                             {"broadcast", FormatIPv4(address.Broadcast)}});
    }
    const Json json = {{"adapter", uint32_t{config.m_nAdapterId}},
                       {"addresses", addresses},
                       {"routers", lists.routers},
                       {"dhcp_servers", lists.dhcpServers},
                       {"dns_servers", lists.dnsServers},
                       {"wins_servers", lists.winsServers}};
    fmt::print("{}\n", FormatJson(json));
}

void PrintIPConfig(const UserIPConfig& config, const Lists& lists)
{
    fmt::print("adapter {}\n", uint32_t{config.m_nAdapterId});
    for (const UserIPAddress& address : lists.addresses) {
        fmt::print("  address    {} netmask {} broadcast {}\n", FormatIPv4(address.IpAddress),
                   FormatIPv4(address.Netmask), FormatIPv4(address.Broadcast));
    }
    const auto print = [](const char* title, const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            fmt::print("  {:9}  {}\n", title, text);
        }
    };
    print("router", lists.routers);
    print("dhcp", lists.dhcpServers);
    print("dns", lists.dnsServers);
    print("wins", lists.winsServers);
    if (lists.IsEmpty()) {
        fmt::print("  no addresses\n");
    }
}

ExitCode GetIPConfig(Session& session, const std::string& adapter)
{
    const uint32_t id = session.AdapterId(adapter);
    const UserIPConfig config = session.About(adapter, [&] { return session.Driver().IPConfig(id); });
    const uint32_t largest = std::max({config.m_nIP, config.m_nGW, config.m_nDHCP, config.m_nDNS});
    if (largest > kMostAddresses) {
        PrintRemark(
            fmt::format("a count of the configuration is {}; only {} can be shown", largest, kMostAddresses));
    }
    (session.json ? PrintIPConfigJson : PrintIPConfig)(config, Lists(config));
    return ExitCode::Success;
}

// What a person gives to `ipconfig set`.
struct IPConfigArguments {
    std::string adapter;
    std::vector<std::string> addresses, routers, dhcpServers, dnsServers, winsServers;
};

[[noreturn]] void RefuseAddress(const char* option, const std::string& text, const char* wanted)
{
    throw CtlError(ExitCode::Usage, fmt::format("{} {}: not {}", option, text, wanted));
}

// Stores addresses at a place of the packed record.
void StoreList(UserIPConfig& config, size_t offset, const char* option, const std::vector<std::string>& texts)
{
    auto* place = reinterpret_cast<uint8_t*>(&config) + offset;
    for (const std::string& text : texts) {
        const std::optional<uint32_t> address = ParseIPv4(text);
        if (!address) {
            RefuseAddress(option, text, "an IPv4 address, as 192.0.2.1");
        }
        std::memcpy(place, &*address, sizeof(*address));
        place += sizeof(*address);
    }
}

UserIPConfig MakeIPConfig(const IPConfigArguments& arguments)
{
    UserIPConfig config = {};
    for (const std::string& text : arguments.addresses) {
        const std::optional<AddressWithMask> address = ParseIPv4Prefix(text);
        if (!address) {
            RefuseAddress("--address", text,
                          "an IPv4 address with a prefix length of 0 to 32, as 192.0.2.10/24");
        }
        config.m_Address[config.m_nIP++] = {address->address, address->mask, 0};
    }
    config.m_nGW = static_cast<uint32_t>(arguments.routers.size());
    config.m_nDHCP = static_cast<uint32_t>(arguments.dhcpServers.size());
    config.m_nDNS = static_cast<uint32_t>(arguments.dnsServers.size());
    StoreList(config, offsetof(UserIPConfig, RouterAddr), "--router", arguments.routers);
    StoreList(config, offsetof(UserIPConfig, DhcpServer), "--dhcp", arguments.dhcpServers);
    StoreList(config, offsetof(UserIPConfig, DnsServer), "--dns", arguments.dnsServers);
    StoreList(config, offsetof(UserIPConfig, WinsServer1), "--wins", arguments.winsServers);
    return config;
}

ExitCode SetIPConfig(Session& session, const IPConfigArguments& arguments)
{
    UserIPConfig config = MakeIPConfig(arguments);
    config.m_nAdapterId = session.AdapterId(arguments.adapter);
    session.About(arguments.adapter, [&] {
        config.m_nReserved = session.Driver().IPConfig(config.m_nAdapterId).m_nReserved;
        session.Driver().SetIPConfig(config);
    });
    return ExitCode::Success;
}

void AddIPConfigCommands(CLI::App& app, Session& session)
{
    CLI::App* const ipconfig = app.add_subcommand("ipconfig", "The IP configuration that the driver keeps");
    ipconfig->require_subcommand(1);

    CLI::App* const get = ipconfig->add_subcommand("get", "Print the IP configuration of an adapter");
    const auto adapter = std::make_shared<std::string>();
    get->add_option("ADAPTER", *adapter, kAdapterHelp)->required();
    get->callback([&session, adapter] {
        session.run = [&session, adapter] { return GetIPConfig(session, *adapter); };
    });

    CLI::App* const set = ipconfig->add_subcommand(
        "set", "Replace the IP configuration of an adapter; what is not given is none");
    const auto arguments = std::make_shared<IPConfigArguments>();
    set->add_option("ADAPTER", arguments->adapter, kAdapterHelp)->required();
    const auto addList = [&](const char* option, std::vector<std::string>& list, const char* help,
                             const char* text, size_t most = kMostAddresses) {
        set->add_option(option, list, help)
            ->allow_extra_args(false)
            ->expected(0, static_cast<int>(most))
            ->option_text(text);
    };
    addList("--address", arguments->addresses, "Address with prefix length, else 32; repeatable, at most 8",
            "A.B.C.D/N");
    addList("--router", arguments->routers, "Default gateway; repeatable, at most 8", "A.B.C.D");
    addList("--dhcp", arguments->dhcpServers, "DHCP server; repeatable, at most 8", "A.B.C.D");
    addList("--dns", arguments->dnsServers, "DNS server; repeatable, at most 8", "A.B.C.D");
    addList("--wins", arguments->winsServers, "WINS server; repeatable, at most 2", "A.B.C.D", 2);
    set->footer("Example:\n  ndisfilterctl ipconfig set 1 --address 192.0.2.10/24 --router 192.0.2.1 --dns "
                "192.0.2.53");
    set->callback([&session, arguments] {
        session.run = [&session, arguments] { return SetIPConfig(session, *arguments); };
    });
}

void AddMediaCommands(CLI::App& app, Session& session)
{
    CLI::App* const media =
        app.add_subcommand("media", "The media state of an adapter, as the hook driver has it");
    media->require_subcommand(1);
    media->footer("Example:\n  ndisfilterctl media set 1 0");
    const auto adapter = std::make_shared<std::string>();
    const auto state = std::make_shared<unsigned>();

    CLI::App* const get = media->add_subcommand("get", "Print the media state");
    get->add_option("ADAPTER", *adapter, kAdapterHelp)->required();
    get->callback([&session, adapter] {
        session.run = [&session, adapter] {
            const MacAddress mac = session.AdapterMac(*adapter);
            const unsigned value = session.About(*adapter, [&] { return session.Driver().MediaState(mac); });
            session.json
                ? fmt::print("{}\n", FormatJson({{"address", FormatMac(mac.data())}, {"state", value}}))
                : fmt::print("{}\n", value);
            return ExitCode::Success;
        };
    });

    CLI::App* const set = media->add_subcommand("set", "Force the media state");
    set->add_option("ADAPTER", *adapter, kAdapterHelp)->required();
    set->add_option("STATE", *state, "0 to 255, as the hook driver means it")
        ->required()
        ->check(CLI::Range(0, 255));
    set->callback([&session, adapter, state] {
        session.run = [&session, adapter, state] {
            const MacAddress mac = session.AdapterMac(*adapter);
            session.About(*adapter,
                          [&] { session.Driver().SetMediaState(mac, static_cast<uint8_t>(*state)); });
            return ExitCode::Success;
        };
    });
}

void AddDumpCommands(CLI::App& app, Session& session)
{
    CLI::App* const dump = app.add_subcommand("dump", "Printing an adapter's packets to the kernel debugger");
    dump->require_subcommand(1);
    dump->footer("Example:\n  ndisfilterctl dump on 1");
    const auto adapter = std::make_shared<std::string>();
    const auto addSwitch = [&](const char* name, const char* help, bool enabled) {
        CLI::App* const command = dump->add_subcommand(name, help);
        command->add_option("ADAPTER", *adapter, kAdapterHelp)->required();
        command->callback([&session, adapter, enabled] {
            session.run = [&session, adapter, enabled] {
                const MacAddress mac = session.AdapterMac(*adapter);
                session.About(*adapter, [&] { session.Driver().SetPacketDump(mac, enabled); });
                return ExitCode::Success;
            };
        });
    };
    addSwitch("on", "Print the packets", true);
    addSwitch("off", "Do not print them", false);

    CLI::App* const show = dump->add_subcommand("show", "Print whether they are printed: on or off");
    show->add_option("ADAPTER", *adapter, kAdapterHelp)->required();
    show->callback([&session, adapter] {
        session.run = [&session, adapter] {
            const MacAddress mac = session.AdapterMac(*adapter);
            const bool enabled = session.About(*adapter, [&] { return session.Driver().PacketDump(mac); });
            session.json
                ? fmt::print("{}\n", FormatJson({{"address", FormatMac(mac.data())}, {"dump", enabled}}))
                : fmt::print("{}\n", enabled ? "on" : "off");
            return ExitCode::Success;
        };
    });
}

} // namespace

void AddAdapterCommands(CLI::App& app, Session& session)
{
    AddIPConfigCommands(app, session);
    AddMediaCommands(app, session);
    AddDumpCommands(app, session);
}

} // namespace ctl
