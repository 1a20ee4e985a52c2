#include <random>

#include "res_policy_manager.h"
#include "rqctl/check/findings.h"
#include "rqctl/check/policy_in_force.h"
#include "service_fixture.h"

namespace KITE::Rqctl {

namespace {

using ResourceQuotaCtl::ResPolicyManager;

// What the tools say of quota files, held against what the service does with them.
class QuotaCheckTest : public ResourceQuotaCtl::ServiceTest {
  protected:
    size_t Random(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random_); }
    std::string RandomName() { return std::string(1, "ABCTU"[Random(5)]); }

    // Every id, quota and running time in it is another.
    std::string RandomRules(const std::string& resource) {
        std::string rules;
        for (size_t i = Random(4); i > 1; --i) {
            rules += std::string(rules.empty() ? "" : ",") +
                     "{'condition':[],'id':" + std::to_string(++last_) +
                     ",'resource_quota':1,'duration':1,'action':''}";
        }
        return "'" + resource + "':" + (Random(10) == 0 ? "{}" : '[' + rules + ']');
    }
    std::string RandomEntry() {
        std::string quotas = "'x':1";
        for (const char* resource : {"mem", "cpu", "cpu_ext", "cpu"}) {
            quotas += Random(2) == 0 ? "" : ',' + RandomRules(resource);
        }
        if (Random(2) == 0) {
            quotas += ",'running_time':" + std::to_string(Random(4) == 0 ? 0 : ++last_);
        }
        const std::string name = RandomName();
        const size_t depth = name < "C" ? 3 : name < "T" ? 2 : name < "U" ? 1 : 0;
        std::string parent = depth == 0 ? "" : std::string(1, "UTC"[Random(depth)]);
        if (Random(8) == 0) {
            parent = RandomName();
        }
        return Entry(name, Random(4) == 0 ? "" : parent, quotas);
    }
    // Reads layers, and asserts that an error is found exactly where the service refuses them.
    void Read(const std::vector<std::string>& texts) {
        std::vector<std::string> files;
        files.reserve(texts.size());
        for (const std::string& text : texts) {
            files.push_back(AddLayer(text));
        }
        layers_ = ReadLayers(files);
        const std::vector<Finding> findings = FindingsIn(layers_);
        policy_ = std::make_unique<ResPolicyManager>();
        isAccepted_ = policy_->InitFromFiles(files);
        ASSERT_EQ(isAccepted_, std::ranges::count(findings, Severity::kError, &Finding::severity) == 0)
            << ::testing::PrintToString(texts);
        for (const Finding& finding : findings) {
            ASSERT_LE(finding.offset, finding.value->layer->text.size());
        }
        platform.ClearTrace();
    }

    Layers layers_;
    std::unique_ptr<ResPolicyManager> policy_;
    bool isAccepted_ = false;

  private:
    std::mt19937 random_{20240501};  // the same files in every run
    int last_ = 0;
};

TEST_F(QuotaCheckTest, ExplainsEveryRuleInForceByTheLineThatItWasWrittenIn) {
    size_t inherited = 0;
    int accepted = 0;
    for (int round = 0; round < 300; ++round) {
        std::vector<std::string> texts(1 + Random(4));
        for (std::string& text : texts) {
            text = RandomEntry();
            for (size_t more = Random(5); more > 0; --more) {
                text += ',' + RandomEntry();
            }
            text = Quotas(text);
        }
        ASSERT_NO_FATAL_FAILURE(Read(texts));
        const PolicyInForce policy(layers_);
        ASSERT_EQ(policy.IsAccepted(), isAccepted_);
        accepted += isAccepted_ ? 1 : 0;
        std::vector<Kelvra::ResQuotaInfo> expected;
        policy_->GetAllResQuotaInfos(expected);
        auto times = policy_->GetExtensionRunningTime();
        auto next = expected.begin();
        for (const char* name : {"A", "B", "C", "T", "U"}) {
            const auto entry = policy.Find(name);
            ASSERT_TRUE(entry);
            for (const auto& [record, origin] : entry->rules) {
                ASSERT_TRUE(next != expected.end() && next->id == record.id && next->processName == name);
                EXPECT_EQ(origin.value->Find("id")->number, record.id) << ::testing::PrintToString(texts);
                inherited += NameOf(*origin.element).text != name ? 1 : 0;
                ++next;
            }
            ASSERT_EQ(entry->runningTime, times[name]);
            if (entry->runningTime != 0) {
                EXPECT_EQ(entry->runningTimeOrigin.value->number, entry->runningTime);
            }
        }
        ASSERT_EQ(next, expected.end());
    }
    EXPECT_GT(inherited, 100U);
    EXPECT_GT(accepted, 100);
    EXPECT_LT(accepted, 250);
}

TEST_F(QuotaCheckTest, FindsAnErrorInExactlyTheTextsThatTheServiceRefuses) {
    const std::string valid = Json(
        "{'quotas':[{'process_name':'a','inherit':'t','process_quotas':{'running_time':1,'mem':[{'condition':"
        "['audio'],'id':1,'resource_quota':-1,'duration':1,'action':'kill'}]}},\n"
        "{'process_name':'t','inherit':'','process_quotas':{'io':{}}}]}");
    const std::string bytes("{}[]\",:\\/ 01.eE+-truen\n\xC3\x00\xEF\xBB\xBF", 28);
    const auto pointers = nlohmann::json::parse(valid).flatten();
    size_t accepted = 0;
    for (int round = 0; round < 1500; ++round) {
        std::string text = valid;
        if (round % 2 == 0) {
            text.replace(Random(text.size()), Random(3), 1, bytes[Random(bytes.size())]);
        } else {
            auto document = nlohmann::json::parse(valid);
            const auto leaf = std::next(pointers.begin(), static_cast<ptrdiff_t>(Random(pointers.size())));
            nlohmann::json::json_pointer place(leaf.key());
            for (size_t up = Random(4); up > 0 && !place.empty(); --up) {
                place.pop_back();
            }
            const nlohmann::json others{nullptr, 1, 1.0, "a", nlohmann::json::array(), {{"quotas", {1}}}};
            document[place] = others[Random(others.size())];
            text = document.dump(1);
        }
        ASSERT_NO_FATAL_FAILURE(Read({text}));
        accepted += isAccepted_ ? 1 : 0;
    }
    EXPECT_GT(accepted, 150U);
    EXPECT_LT(accepted, 1000U);
}

}  // namespace

}  // namespace KITE::Rqctl
