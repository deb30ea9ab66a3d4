#include "host/StorageCost.h"

#include <cstdio>
#include <sstream>

#include "util/Error.h"
#include "util/Text.h"

namespace qvhost {

namespace {


double Figure(const Json& json, const char* name, const std::string& path) {
    const auto found = json.find(name);
    if (found == json.end()) throw Error(ErrorKind::Usage, "the price table " + path + " names no \"" + name + "\"");
    if (!found->is_number() || found->get<double>() < 0) {
        throw Error(ErrorKind::Usage, "the price table " + path + ": \"" + name + "\" is not a price (a number, 0 or more)");
    }
    return found->get<double>();
}

}  // namespace

std::string CostText(double amount, const std::string& currency) {
    char text[64];
    std::snprintf(text, sizeof text, amount >= 0.01 || amount == 0 ? "%.2f" : "%.6f", amount);
    return std::string(text) + " " + currency;
}

PriceTable DefaultPrices() {
    PriceTable prices;
    prices.currency = "USD";
    prices.source =
        "Azure Blob Storage pay-as-you-go list prices, block blobs, LRS, East US, Hot-tier requests "
        "(azure.microsoft.com/pricing/details/storage/blobs, 2024); internet egress after the free 100 GB";
    prices.write = 0.05;
    prices.read = 0.004;
    prices.list = 0.05;
    prices.other = 0.004;
    prices.perGiBReceived = 0.087;
    prices.perGiBMonth = {{"Hot", 0.018}, {"Cool", 0.01}, {"Cold", 0.0036}, {"Archive", 0.00099}};
    return prices;
}

PriceTable ParsePriceTable(const std::string& text, const std::string& path) {
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object()) throw Error(ErrorKind::Usage, "the price table " + path + " is not a JSON object");
    PriceTable prices;
    const auto currency = json.find("currency");
    if (currency == json.end() || !currency->is_string() || currency->get<std::string>().empty()) {
        throw Error(ErrorKind::Usage, "the price table " + path + " names no \"currency\"");
    }
    prices.currency = currency->get<std::string>();
    const auto source = json.find("source");
    prices.source = source != json.end() && source->is_string() ? source->get<std::string>() : path;
    const auto requests = json.find("per_10000_requests");
    if (requests == json.end() || !requests->is_object()) {
        throw Error(ErrorKind::Usage, "the price table " + path + " names no \"per_10000_requests\"");
    }
    prices.write = Figure(*requests, "write", path);
    prices.read = Figure(*requests, "read", path);
    prices.list = Figure(*requests, "list", path);
    prices.other = Figure(*requests, "other", path);
    prices.perGiBReceived = Figure(json, "per_gib_received", path);
    const auto stored = json.find("per_gib_month");
    if (stored == json.end() || !stored->is_object()) {
        throw Error(ErrorKind::Usage, "the price table " + path + " names no \"per_gib_month\"");
    }
    for (const char* tier : {"Hot", "Cool", "Cold", "Archive"}) prices.perGiBMonth[tier] = Figure(*stored, tier, path);
    return prices;
}

double RequestCost(const StorageTraffic& traffic, const PriceTable& prices) {
    const double requests = static_cast<double>(traffic.write) * prices.write +
                            static_cast<double>(traffic.read) * prices.read +
                            static_cast<double>(traffic.list) * prices.list +
                            static_cast<double>(traffic.other) * prices.other;
    return requests / 10000.0 + static_cast<double>(traffic.bytesReceived) / kBytesPerGiB * prices.perGiBReceived;
}

Json TrafficJson(const StorageTraffic& traffic, const PriceTable& prices) {
    return Json{{"requests",
                 {{"write", traffic.write},
                  {"read", traffic.read},
                  {"list", traffic.list},
                  {"other", traffic.other},
                  {"delete", traffic.remove}}},
                {"bytes_sent", traffic.bytesSent},
                {"bytes_received", traffic.bytesReceived},
                {"estimated_cost", RequestCost(traffic, prices)},
                {"currency", prices.currency}};
}

std::string TrafficText(const StorageTraffic& traffic, const PriceTable& prices) {
    return "storage requests: " + std::to_string(traffic.write) + " write, " + std::to_string(traffic.read) +
           " read, " + std::to_string(traffic.list) + " list, " + std::to_string(traffic.other) + " other, " +
           std::to_string(traffic.remove) + " delete; sent " + FormatBytes(static_cast<double>(traffic.bytesSent)) +
           ", received " + FormatBytes(static_cast<double>(traffic.bytesReceived)) + "; about " +
           CostText(RequestCost(traffic, prices), prices.currency);
}

std::vector<TierStorage> StorageByTier(const std::vector<std::pair<std::string, uint64_t>>& tierAndSize,
                                       const PriceTable& prices) {
    std::map<std::string, TierStorage> byTier;
    for (const auto& [tier, size] : tierAndSize) {
        TierStorage& entry = byTier[tier];
        entry.tier = tier;
        ++entry.objects;
        entry.bytes += size;
    }
    std::vector<TierStorage> out;
    for (auto& [tier, entry] : byTier) {
        // An object whose tier the listing does not say is priced as Hot, the default.
        const double perGiB = prices.PerGiBMonth(prices.perGiBMonth.count(tier) ? tier : "Hot");
        entry.monthlyCost = static_cast<double>(entry.bytes) / kBytesPerGiB * perGiB;
        out.push_back(entry);
    }
    return out;
}

}  // namespace qvhost
