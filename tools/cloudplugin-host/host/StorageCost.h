// What a command's requests and a repository's storage cost: Azure's price
// list as a table the user may replace (--prices FILE), and the estimates
// made from it. Estimates only: a bill also counts what this tool cannot
// see (free allowances, reserved capacity, replication, other clients).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/HostRuntime.h"
#include "util/Json.h"

namespace qvhost {

struct PriceTable {
    std::string currency;
    std::string source;  // where the figures come from, and when
    // Per 10,000 requests, by kind (StorageTraffic); deletes are free.
    double write = 0;
    double read = 0;
    double list = 0;
    double other = 0;
    double perGiBReceived = 0;             // data out of the region (egress)
    std::map<std::string, double> perGiBMonth;  // stored, by access tier ("Hot", "Cool", "Cold", "Archive")

    // A GiB-month in the tier; 0 for a tier the table does not price.
    double PerGiBMonth(const std::string& tier) const {
        const auto price = perGiBMonth.find(tier);
        return price == perGiBMonth.end() ? 0.0 : price->second;
    }
};

// The defaults: Azure's pay-as-you-go list prices for block blobs (LRS,
// East US, in US dollars), with their source and date in `source`.
PriceTable DefaultPrices();

// A price table from the JSON text of the file `path`, every figure named
// (README, "What it costs"); throws Error (usage) naming the file and what
// is wrong with it.
PriceTable ParsePriceTable(const std::string& text, const std::string& path);

// "0.12 USD"; amounts under a cent with six decimals.
std::string CostText(double amount, const std::string& currency);

// What the requests and the bytes received cost.
double RequestCost(const StorageTraffic& traffic, const PriceTable& prices);

// The --json member and the human line for a command's traffic.
Json TrafficJson(const StorageTraffic& traffic, const PriceTable& prices);
std::string TrafficText(const StorageTraffic& traffic, const PriceTable& prices);

// Stored bytes of one access tier, and what a month of them costs.
struct TierStorage {
    std::string tier;  // as listed; "" when the listing names none (the account's default tier)
    uint64_t objects = 0;
    uint64_t bytes = 0;
    double monthlyCost = 0;
};

// Sums stored objects by tier and prices each; a tier the table lacks (and
// the account's default) is priced as Hot.
std::vector<TierStorage> StorageByTier(const std::vector<std::pair<std::string, uint64_t>>& tierAndSize,
                                       const PriceTable& prices);

}  // namespace qvhost
