// Tokens as cards show them, made up in memory: which of them is named, which key of them signs.

#include "library.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <utility>

namespace {

using made::bytes;
using object = std::map<CK_ATTRIBUTE_TYPE, bytes>;

struct card {
    std::string label;
    std::vector<object> objects;
    CK_FLAGS flags = CKF_TOKEN_INITIALIZED;
    std::string serial = "4711";
};
std::vector<card> cards;
std::vector<CK_OBJECT_HANDLE> found, destroyed;
int searches, logins;
bool loggedIn;
std::size_t open_to_all = 1'000'000; // objects; the others are shown to a login
std::string newcomer;                // the label of a card that takes the first one's place

bytes number(CK_ULONG value) {
    const auto* raw = reinterpret_cast<const unsigned char*>(&value);
    return {raw, raw + sizeof value};
}

CK_RV slots(CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count) {
    for (CK_SLOT_ID i = 0; list != nullptr && i < cards.size(); ++i) { list[i] = i; }
    return *count = cards.size(), CKR_OK;
}

CK_RV info(CK_SLOT_ID slot, CK_TOKEN_INFO* told) {
    *told = {};
    told->flags = cards.at(slot).flags;
    told->ulMinPinLen = 4;
    std::ranges::copy(cards.at(slot).label, told->label);
    std::ranges::copy(cards.at(slot).serial + "  ", told->serialNumber);
    return CKR_OK;
}

// For all objects, or for the private keys.
CK_RV search(CK_SESSION_HANDLE session, CK_ATTRIBUTE*, CK_ULONG count) {
    ++searches;
    const std::size_t all = cards.at(session - 1).objects.size();
    for (std::size_t i = 0; i < (loggedIn ? all : std::min(all, open_to_all)); ++i) {
        const auto& kind = cards.at(session - 1).objects[i].at(CKA_CLASS);
        if (count == 1 || kind == number(CKO_PRIVATE_KEY)) { found.push_back(i); }
    }
    return CKR_OK;
}

CK_RV next(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* list, CK_ULONG room, CK_ULONG* count) {
    *count = std::min<CK_ULONG>(room, found.size());
    std::copy_n(found.begin(), *count, list);
    return found.erase(found.begin(), found.begin() + static_cast<long>(*count)), CKR_OK;
}

// Gives up at the first attribute that it does not know, as some do.
CK_RV values(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE at, CK_ATTRIBUTE* asked, CK_ULONG count) {
    for (CK_ATTRIBUTE* each = asked; each != asked + count; ++each) {
        const auto& its = cards.at(session - 1).objects.at(at);
        if (!its.contains(each->type)) { return CKR_ATTRIBUTE_TYPE_INVALID; }
        const bytes& value = its.at(each->type);
        const CK_ULONG room = std::exchange(each->ulValueLen, value.size());
        if (each->pValue == nullptr) { continue; }
        if (room < value.size()) { return CKR_BUFFER_TOO_SMALL; }
        std::ranges::copy(value, static_cast<unsigned char*>(each->pValue));
    }
    return CKR_OK;
}

CK_FUNCTION_LIST module = [] {
    CK_FUNCTION_LIST list{};
    constexpr auto fine = [](auto...) -> CK_RV { return CKR_OK; };
    list.C_Initialize = list.C_Finalize = fine;
    list.C_GetSlotList = slots;
    list.C_GetTokenInfo = info;
    list.C_GetSlotInfo = fine;
    list.C_OpenSession = [](CK_SLOT_ID slot, auto, auto, auto, CK_SESSION_HANDLE* session) {
        if (!newcomer.empty()) { cards[0].label = newcomer; }
        return *session = slot + 1, CK_RV{CKR_OK};
    };
    list.C_Logout = list.C_FindObjectsFinal = fine;
    list.C_CloseSession = [](auto) { return loggedIn = false, CK_RV{CKR_OK}; };
    list.C_DestroyObject = [](auto, auto at) { return destroyed.push_back(at), CK_RV{CKR_OK}; };
    list.C_Login = [](auto, auto, auto, CK_ULONG length) {
        return loggedIn = true, ++logins, CK_RV{length > 8 ? CKR_ARGUMENTS_BAD : CKR_OK};
    };
    list.C_FindObjectsInit = search;
    list.C_FindObjects = next;
    list.C_GetAttributeValue = values;
    return list;
}();

struct key {
    const char* usage = "critical,digitalSignature"; // of its certificate; "": it has none
    bool shared = false;                             // the identifier, with the first one
    CK_BBOOL isPrivate = CK_TRUE;
    const char* purpose = nullptr; // of its certificate, if one is told
    CK_BBOOL signs = CK_TRUE;
    bool renewed = false; // there is a certificate that ends later, and one that has ended
};

// Puts a key with a certificate of more than 1 KiB on the card, and returns the certificate.
bytes put(const key& with, bool showsKey = true) {
    auto& objects = cards.at(0).objects;
    const made::key pair(made::p256());
    bytes point(65), certificate;
    EVP_PKEY_get_octet_string_param(pair.get(), "encoded-pub-key", point.data(), 65, nullptr);
    const auto id = number(with.shared ? 0 : objects.size());
    if (with.usage == nullptr || *with.usage != '\0') {
        const auto issued = made::issue(pair.get(), with.usage);
        if (with.purpose != nullptr) {
            auto* told = X509V3_EXT_conf_nid(nullptr, nullptr, NID_ext_key_usage, with.purpose);
            X509_add_ext(issued.get(), told, -1);
            X509_EXTENSION_free(told);
        }
        certificate = made::der(issued);
        auto padded = certificate;
        padded.resize(2000); // a decoder stops before
        objects.push_back(
            {{CKA_CLASS, number(CKO_CERTIFICATE)}, {CKA_ID, id}, {CKA_VALUE, padded}});
        for (const long end : with.renewed ? std::vector{7200L, -1L} : std::vector<long>{}) {
            const std::unique_ptr<ASN1_TIME, made::freed<ASN1_TIME_free>> last(
                X509_gmtime_adj(nullptr, end));
            X509_set1_notAfter(issued.get(), last.get());
            objects.push_back({{CKA_CLASS, number(CKO_CERTIFICATE)}, {CKA_ID, id},
                {CKA_VALUE, made::der(issued)}});
            if (end > 0) { certificate = made::der(issued); }
        }
    }
    if (showsKey) {
        objects.push_back({{CKA_CLASS, number(CKO_PUBLIC_KEY)}, {CKA_ID, id},
            {CKA_KEY_TYPE, number(CKK_EC)}, {CKA_VERIFY, {1}}, {CKA_EC_POINT, point},
            {CKA_EC_PARAMS, {6, 8, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 3, 1, 7}}});
    }
    objects.push_back({{CKA_CLASS, number(CKO_PRIVATE_KEY)}, {CKA_ID, id},
        {CKA_PRIVATE, {with.isPrivate}}, {CKA_SIGN, {with.signs}}});
    return certificate;
}

constexpr EU_KEY_MEDIA first{.dwTypeIndex = 0, .dwDevIndex = 0, .szPassword = "1234"};

// Opens the key of the first card; its certificate.
DWORD open(bytes& certificate, const char* password = "1234") {
    EU_KEY_MEDIA with = first;
    std::copy_n(password, std::strlen(password) + 1, with.szPassword);
    const made::opened_key key(with);
    return key.result == EU_ERROR_NONE ? key.certificate(certificate) : key.result;
}

TEST(Cards, OfOneSerialAreToldApart) {
    using names = std::vector<std::string>;
    for (const auto& [labels, expected] :
        std::map<names, names>{{{"A"}, {"4711"}}, {{"A", "B"}, {"4711/A", "4711/B"}},
            {{"B", "", "B"}, {"4711/B#2", "4711/", "4711/B#4"}}}) {
        cards = {{"not initialised", {}, 0}, {"no serial", {}, CKF_TOKEN_INITIALIZED, ""}};
        for (const auto& label : labels) { cards.push_back({label, {}}); }
        names texts;
        std::array<char, EU_DESCRIPTION_SIZE> text{};
        for (DWORD i = 0; EUEnumKeyMediaDevices(0, i, text.data()) == EU_ERROR_NONE; ++i) {
            texts.emplace_back(text.data());
        }
        EXPECT_EQ(texts, expected);
    }
}

TEST(Cards, SignWithTheKeyMeantForIt) {
    constexpr auto documents = "nonRepudiation", access = "digitalSignature",
                   other = "keyAgreement";
    struct row {
        std::vector<key> keys;
        int expected; // which of them, or
        DWORD code = EU_ERROR_NONE;
    };
    for (const row& each : std::vector<row>{{{{access}, {documents}, {access}}, 1},
             {{{access}, {nullptr}}, 1}, {{{""}, {access}}, 1}, {{{other}, {access}, {access}}, 1},
             {{{other}, {""}}, 1, EU_ERROR_CERT_OTHER_KEY}, {{{""}}, 0, EU_ERROR_CERT_NOT_FOUND},
             {{{access}, {documents, true}}, 0, EU_ERROR_KEY_NOT_FOUND},
             {{{other}}, -1, EU_ERROR_KEY_NOT_FOUND},
             {{{.purpose = "2.16.840.1.101.3.6.8"}, {access}}, 1}, // the card's own
             {{{.renewed = true}}, 0}, {{{.signs = CK_FALSE}, {access}}, 1},
             {{{documents, false, CK_FALSE}}, -1, EU_ERROR_KEY_NOT_FOUND}}) {
        for (const bool showsKeys : {true, false}) {
            cards = {{"A", {}}};
            std::vector<bytes> certificates;
            for (const key& one : each.keys) { certificates.push_back(put(one, showsKeys)); }
            if (!showsKeys && std::ranges::count(certificates, bytes{}) > 0) { continue; }
            EXPECT_EQ(made::list(), EU_ERROR_NONE);
            EXPECT_EQ(made::find(first) == EU_ERROR_NONE, each.expected >= 0);
            bytes chosen;
            EXPECT_EQ(open(chosen), each.code);
            EXPECT_TRUE(each.code != 0 || chosen == certificates[std::size_t(each.expected)]);
        }
    }
}

TEST(Cards, LoseTheKeyThatSigns) {
    cards = {{"A", {}}};
    put({});
    open_to_all = cards[0].objects.size();
    put({"nonRepudiation"});
    EXPECT_EQ(made::list(), EU_ERROR_NONE);
    logins = 0;
    EXPECT_EQ(EUDestroyPrivateKey(&first), EU_ERROR_NONE);
    EXPECT_EQ(destroyed, (std::vector<CK_OBJECT_HANDLE>{2, 1}));
    newcomer = "B"; // while a session is opened
    EXPECT_EQ(EUDestroyPrivateKey(&first), EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
    EXPECT_EQ(logins, 1); // the first one's
    newcomer.clear();
    cards[0].label = "A";
    cards[0].flags |= CKF_WRITE_PROTECTED;
    EXPECT_EQ(EUDestroyPrivateKey(&first), EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED);
    open_to_all = 1'000'000;
}

TEST(Cards, AreReadOnceAndInProportion) {
    cards = {{"A", {}}};
    bytes certificate;
    put({});
    EXPECT_EQ(made::list() + made::find(first), EU_ERROR_NONE);
    searches = logins = 0;
    EXPECT_EQ(open(certificate), EU_ERROR_NONE); // in the session that has seen the rest
    EXPECT_EQ(std::pair(searches, logins), std::pair(1, 1));
    EXPECT_EQ(open(certificate, "123"), EU_ERROR_PASSWORD_LENGTH); // the card was not asked
    EXPECT_EQ(logins, 1);
    EXPECT_EQ(open(certificate, "123456789"), EU_ERROR_PASSWORD_LENGTH);

    for (const key& kind : {key{}, key{.usage = "", .shared = true}}) { // and one that signs
        for (int i = 0; i < 1000; ++i) { put(kind); }
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(made::find(first), EU_ERROR_NONE);
        EXPECT_EQ(open(certificate), EU_ERROR_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

} // namespace

CK_FUNCTION_LIST* onlyModule() { return &module; }
