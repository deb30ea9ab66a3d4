// Cost estimates: the price table (the defaults, a file of the user's and
// what a file lacking a figure gets), the estimate of a command's requests
// and the monthly storage by access tier.
#include <gtest/gtest.h>

#include "host/StorageCost.h"
#include "util/Error.h"

using namespace qvhost;

namespace {

const char* kTable = R"({"currency": "EUR", "source": "our contract, 2026",
  "per_10000_requests": {"write": 0.1, "read": 0.01, "list": 0.2, "other": 0.02},
  "per_gib_received": 0.5,
  "per_gib_month": {"Hot": 0.02, "Cool": 0.01, "Cold": 0.004, "Archive": 0.001}})";

}  // namespace

TEST(PriceTable, TheDefaultsPriceEveryKindAndTierAndSayWhereTheyComeFrom) {
    const PriceTable prices = DefaultPrices();
    EXPECT_EQ(prices.currency, "USD");
    EXPECT_NE(prices.source.find("azure.microsoft.com"), std::string::npos);
    EXPECT_GT(prices.write, prices.read);
    for (const char* tier : {"Hot", "Cool", "Cold", "Archive"}) EXPECT_GT(prices.perGiBMonth.at(tier), 0) << tier;
    EXPECT_GT(prices.perGiBMonth.at("Hot"), prices.perGiBMonth.at("Archive"));
}

TEST(PriceTable, AFileOfTheUsersReplacesEveryFigure) {
    const PriceTable prices = ParsePriceTable(kTable, "prices.json");
    EXPECT_EQ(prices.currency, "EUR");
    EXPECT_EQ(prices.source, "our contract, 2026");
    EXPECT_DOUBLE_EQ(prices.write, 0.1);
    EXPECT_DOUBLE_EQ(prices.list, 0.2);
    EXPECT_DOUBLE_EQ(prices.perGiBReceived, 0.5);
    EXPECT_DOUBLE_EQ(prices.perGiBMonth.at("Cold"), 0.004);
}

TEST(PriceTable, AFileLackingAFigureOrHoldingANegativeOneIsRefusedNamingIt) {
    const auto refusal = [&](const std::string& text) {
        try {
            ParsePriceTable(text, "prices.json");
        } catch (const Error& error) {
            EXPECT_EQ(error.kind(), ErrorKind::Usage);
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    std::string noCold = kTable;
    noCold.replace(noCold.find("\"Cold\": 0.004, "), 15, "");
    EXPECT_NE(refusal(noCold).find("\"Cold\""), std::string::npos);
    std::string negative = kTable;
    negative.replace(negative.find("0.01,"), 5, "-1,");
    EXPECT_NE(refusal(negative).find("\"read\" is not a price"), std::string::npos);
    EXPECT_NE(refusal("{\"currency\": \"EUR\"}").find("per_10000_requests"), std::string::npos);
    EXPECT_NE(refusal("not json").find("not a JSON object"), std::string::npos);
    EXPECT_NE(refusal("{}").find("\"currency\""), std::string::npos);
}

TEST(RequestCost, RequestsArePricedPerTenThousandDeletesAreFreeAndBytesReceivedPerGiB) {
    PriceTable prices = DefaultPrices();
    prices.write = 10000;  // one a request
    prices.read = 20000;
    prices.list = 30000;
    prices.other = 40000;
    prices.perGiBReceived = 7;
    StorageTraffic traffic;
    traffic.write = 1;
    traffic.read = 2;
    traffic.list = 3;
    traffic.other = 4;
    traffic.remove = 1000;
    traffic.bytesSent = 1ull << 40;  // sending is free
    traffic.bytesReceived = 1ull << 31;
    EXPECT_DOUBLE_EQ(RequestCost(traffic, prices), 1 + 4 + 9 + 16 + 14);
    EXPECT_EQ(traffic.Requests(), 1010u);
    const Json json = TrafficJson(traffic, prices);
    EXPECT_EQ(json["requests"]["delete"], 1000);
    EXPECT_EQ(json["bytes_received"], 1ull << 31);
    EXPECT_EQ(json["currency"], "USD");
    const std::string text = TrafficText(traffic, prices);
    EXPECT_NE(text.find("1 write, 2 read, 3 list, 4 other, 1000 delete"), std::string::npos) << text;
    EXPECT_NE(text.find("about 44.00 USD"), std::string::npos) << text;
}

TEST(StorageByTier, ObjectsAreSummedByTierAndATierTheTableLacksIsPricedAsHot) {
    PriceTable prices = DefaultPrices();
    prices.perGiBMonth = {{"Hot", 2}, {"Archive", 1}};
    const uint64_t gib = 1ull << 30;
    const std::vector<TierStorage> tiers =
        StorageByTier({{"Archive", gib}, {"", gib / 2}, {"Archive", gib}, {"Cool", gib}}, prices);
    ASSERT_EQ(tiers.size(), 3u);
    EXPECT_EQ(tiers[0].tier, "");
    EXPECT_DOUBLE_EQ(tiers[0].monthlyCost, 1.0);
    EXPECT_EQ(tiers[1].tier, "Archive");
    EXPECT_EQ(tiers[1].objects, 2u);
    EXPECT_EQ(tiers[1].bytes, 2 * gib);
    EXPECT_DOUBLE_EQ(tiers[1].monthlyCost, 2.0);
    EXPECT_EQ(tiers[2].tier, "Cool");
    EXPECT_DOUBLE_EQ(tiers[2].monthlyCost, 2.0);
    EXPECT_EQ(CostText(0.5, "EUR"), "0.50 EUR");
    EXPECT_EQ(CostText(0.0000123, "EUR"), "0.000012 EUR");
}
