// Which medium is named, which key of it signs; passwords; the life of a key whose medium fails.

#include "medium.h"

#include <fcntl.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

std::chrono::nanoseconds slept{};
std::function<void()> meanwhile; // if any, happens in place of a sleep

} // namespace

int nanosleep(const timespec* time, timespec* left) {
    if (!meanwhile) { return ::clock_nanosleep(CLOCK_REALTIME, 0, time, left); }
    slept += std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    return meanwhile(), 0;
}

namespace {

using namespace made;

const extensions documents{{NID_key_usage, "nonRepudiation"}, {NID_basic_constraints, "CA:FALSE"}},
    other{{NID_key_usage, "keyAgreement"}}, none{},
    itself{{NID_ext_key_usage, "2.16.840.1.101.3.6.8"}},
    authority{{NID_basic_constraints, "CA:TRUE"}};

// When certificates of one key begin and end, in seconds from now: a good one, the best, and some
// that end last but will not do (the last one is not for signing).
using periods = std::vector<std::pair<long, long>>;
const periods manyTimes{{-60, 3600}, {-60, 7200}, {-60, -1}, {3600, 9999}, {-59, 9999}};

struct card_key {
    std::optional<extensions> certificate = signing; // if it has one
    bool shared = false;                             // the identifier, with the first one
    int privateKeys = 1;
    object tells{}; // of its private key
    periods valid{{-60, 3600}};
    bool odd = false;    // its point begins as a shorter one would that is wrapped
    bool hidden = false; // until a login
    const char* curve = "prime256v1";
};

// Puts a key on the token, and returns the best of its certificates, of more than 1 KiB.
bytes put(const card_key& with, CK_ULONG id = 0, bool showsKey = true,
    const maintenance& on = maintenance()) {
    made::key pair(EVP_EC_gen(with.curve));
    bytes point = der(pair.get(), i2d_PublicKey), best;
    for (; with.odd && (point[1] > 62 || point[2] != 4); point = der(pair.get(), i2d_PublicKey)) {
        pair.reset(p256());
    }
    const object all{{CKA_ID, number(with.shared ? 0 : id)}, {CKA_PRIVATE, {with.hidden}}};
    for (const auto& [begin, end] : with.valid) {
        if (!with.certificate) { break; }
        const auto& usage = begin == -59 ? other : *with.certificate;
        bytes value = der(issue(pair.get(), usage, end, begin));
        if (best.empty() || (begin == -60 && end > 0)) { best = value; }
        value.resize(2000); // a decoder stops before
        on.create(certificateOf(value), all);
    }
    const object keys{{CKA_KEY_TYPE, number(CKK_EC)},
        {CKA_EC_PARAMS, der(OBJ_txt2obj(with.curve, 0), i2d_ASN1_OBJECT)}};
    const object verifies{{CKA_CLASS, number(CKO_PUBLIC_KEY)}, {CKA_VERIFY, {1}}};
    if (showsKey) { on.create({{CKA_EC_POINT, point}}, verifies, all, keys); }
    const bytes whole = der(pair.get(), i2d_PrivateKey); // the number stands behind seven bytes
    const object signs{{CKA_CLASS, number(CKO_PRIVATE_KEY)}, {CKA_PRIVATE, {1}},
        {CKA_VALUE, {whole.begin() + 7, whole.begin() + 39}}};
    for (int i = 0; i < with.privateKeys; ++i) { on.create(with.tells, signs, all, keys); }
    return best;
}

TEST(Cards, OfOneSerialAreToldApart) {
    using names = std::vector<std::string>;
    constexpr bool twice = true;
    const std::string far = "4711/A#2@" + std::string(247, 'n'); // as long as a text may be
    for (const auto& [at, labels, expected] :
        std::vector<std::tuple<bool, names, names>>{{!twice, {}, {}}, {!twice, {"A"}, {"4711"}},
            {!twice, {"A", "B"}, {"4711/A", "4711/B"}},
            {!twice, {"B", "", "B", "\n"}, {"4711/B#2", "4711/", "4711/B#4"}},
            {twice, {"A"}, {"4711/A#2@one", far}}, {twice, {"AB"}, {"4711/AB#2@one"}}}) {
        token.isTwice = at;
        cards = {{"not initialised", 0}, {"no serial", CKF_TOKEN_INITIALIZED, ""}};
        for (const auto& label : labels) { cards.push_back({label}); }
        names texts;
        std::array<char, EU_DESCRIPTION_SIZE> text{};
        for (DWORD i = 0; EUEnumKeyMediaDevices(0, i, text.data()) == EU_ERROR_NONE; ++i) {
            texts.emplace_back(text.data());
            if (i == 0) { cards.push_back({"plugged in meanwhile"}); }
        }
        EXPECT_EQ(texts, expected);
    }
    token = {};
    cards = {{}};
}

TEST(Cards, SignWithTheKeyMeantForIt) {
    struct row {
        std::vector<card_key> keys;
        int expected; // which of them, or
        DWORD code = EU_ERROR_NONE;
    };
    for (const row& each :
        std::vector<row>{{{{}, {documents}, {}}, 1}, {{{}, {none}}, 1}, {{{std::nullopt}, {}}, 1},
            {{{other}, {}, {}}, 1}, {{{other}, {std::nullopt}}, 1, EU_ERROR_CERT_OTHER_KEY},
            {{{std::nullopt}}, 0, EU_ERROR_CERT_NOT_FOUND}, {{{other}}, -1, EU_ERROR_KEY_NOT_FOUND},
            {{{}, {documents, true}}, 0, EU_ERROR_KEY_NOT_FOUND},
            {{{}, {documents, true, 0}}, 0, EU_ERROR_KEY_NOT_FOUND},
            {{{documents, false, 2}, {}}, 1}, {{{documents, false, 0}, {}}, 1}, {{{itself}, {}}, 1},
            {{{.curve = "secp256k1"}, {}}, 1},
            {{{.curve = "secp256k1"}}, 0, EU_ERROR_KEY_NOT_SUPPORTED}, {{{.valid = manyTimes}}, 0},
            {{{.valid = {{-60, -1}}}}, 0, EU_ERROR_CERT_PERIOD}, {{{.odd = true}}, 0},
            {{{.tells = {{CKA_SIGN, {0}}}}, {}}, 1},
            {{{.tells = {{CKA_ALWAYS_AUTHENTICATE, {1}}}}}, 0},
            {{{.tells = {{CKA_PRIVATE, {0}}}}}, -1, EU_ERROR_KEY_NOT_FOUND}}) {
        for (const bool showsKeys : {true, false}) {
            token.isCurt = showsKeys;
            empty();
            std::vector<bytes> certificates;
            for (const card_key& one : each.keys) {
                certificates.push_back(put(one, certificates.size(), showsKeys));
            }
            if (!showsKeys && std::ranges::count(certificates, bytes{}) > 0) { continue; }
            EXPECT_EQ(list(), EU_ERROR_NONE);
            EXPECT_EQ(find() == EU_ERROR_NONE, each.expected >= 0);
            bytes signature;
            EXPECT_EQ(sign(&signature), each.code);
            if (each.code == EU_ERROR_NONE) {
                EXPECT_EQ(verify(data, signature, certificates[std::size_t(each.expected)]), 0U);
            }
        }
    }
    token = {};
}

TEST(Cards, LoseTheKeyThatSigns) {
    for (const bool showsKeys : {true, false}) {
        empty();
        put({}, 0, showsKeys);
        put({.certificate = authority, .privateKeys = 0}, 1, false);
        put({.certificate = documents, .hidden = true}, 2, showsKeys);
        EXPECT_EQ(list(), EU_ERROR_NONE);
        EXPECT_EQ(destroy(), EU_ERROR_NONE);
        EXPECT_EQ(find(), EU_ERROR_KEY_NOT_FOUND);
        EXPECT_EQ(count(), showsKeys ? 4U : 3U);
    }
    empty();
    for (const auto& [logins, call] :
        {std::pair(0, 2), {1, 7}}) { // as a session opens, a login ends
        cards = {{}};
        now = {.failAt = call, .event = [] { cards[0].label = "B"; }};
        EXPECT_EQ(destroy(), EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
        EXPECT_EQ(now.logins, logins);
    }
    cards = {{.flags = CKF_TOKEN_INITIALIZED | CKF_WRITE_PROTECTED}};
    EXPECT_EQ(destroy(), EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED);
    cards = {{}};
}

TEST(Cards, AreReadOnceAndInProportion) {
    empty();
    put({});
    EXPECT_EQ(list() + find(), EU_ERROR_NONE);
    now = {};
    EXPECT_EQ(sign(), EU_ERROR_NONE); // in the session that has seen the rest
    EXPECT_EQ(std::pair(now.searches, now.logins), std::pair(1, 1));
    EXPECT_EQ(sign(nullptr, medium("123")), EU_ERROR_PASSWORD_LENGTH);
    token.longestPin = 5;
    EXPECT_EQ(sign(), EU_ERROR_PASSWORD_LENGTH);
    EXPECT_EQ(now.logins, 1); // the card was not asked
    token.longestPin = 6;
    EXPECT_EQ(sign(), EU_ERROR_NONE);
    EXPECT_EQ(sign(nullptr, medium("1234")), EU_ERROR_PASSWORD_INCORRECT);

    token.forgets = true;
    const maintenance with;
    for (const auto& certificate : {std::optional(signing), {}}) {
        for (CK_ULONG i = 1; i <= 1000; ++i) {
            put({.certificate = certificate, .tells = {{CKA_PRIVATE, {0}}}}, i, true, with);
        }
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(find() + sign(), EU_ERROR_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
    token = {};
}

using calls = std::vector<std::function<DWORD()>>;

// A new key with its certificate, which is returned.
certificate certify(const extensions& usage = signing) {
    bytes requests;
    EXPECT_EQ(generate(right, &requests), EU_ERROR_NONE);
    const unsigned char* start = requests.data();
    const std::unique_ptr<X509_REQ, freed<X509_REQ_free>> parsed(
        d2i_X509_REQ(nullptr, &start, std::ssize(requests)));
    EVP_PKEY* const publicKey = X509_REQ_get0_pubkey(parsed.get());
    // The second key is for what others encrypt: one on a curve by keyAgreement, else by
    // keyEncipherment.
    const bool onCurve = EVP_PKEY_is_a(publicKey, "EC") == 1;
    const bytes forOthers = onCurve ? bytes{3, 2, 3, 0x08} : bytes{3, 2, 5, 0x20};
    EXPECT_NE(std::search(requests.begin(), requests.end(), forOthers.begin(), forOthers.end()),
        requests.end());
    auto own = issue(publicKey, usage);
    maintenance().create(certificateOf(der(own)), object{{CKA_LABEL, {'o', 'w', 'n'}}});
    return own;
}

// The same alone with what is a stranger's: a certificate, and private keys that are named nearly
// as generated ones are.
constexpr std::size_t strangers = 3;
certificate makeSigner(const extensions& usage = signing) {
    EXPECT_EQ(list(), EU_ERROR_NONE);
    empty();
    maintenance().create(certificateOf(der(issue(key(p256()).get(), other))));
    for (const bytes& id : {bytes(17, 1), bytes(18, 0)}) { // a KEP's, and one that is too long
        put({.certificate = {}, .tells = {{CKA_ID, id}, {CKA_LABEL, {'D', 'S'}}}}, 0, false);
    }
    return certify(usage);
}

// Nor does a refusal close a key that is open, somebody else's.
TEST(Password, EachRefusalHasItsCode) {
    makeSigner();
    const opened_key key;
    for (const auto& [refusal, expected] :
        std::map<CK_RV, DWORD>{{CKR_OK, EU_ERROR_PASSWORD_INCORRECT}, // the token's own
            {CKR_PIN_LOCKED, EU_ERROR_PASSWORD_LOCKED},
            {CKR_ARGUMENTS_BAD, EU_ERROR_PASSWORD_LENGTH},
            {CKR_DATA_LEN_RANGE, EU_ERROR_PASSWORD_LENGTH},
            {CKR_PIN_EXPIRED, EU_ERROR_PASSWORD_EXPIRED},
            {CKR_USER_PIN_NOT_INITIALIZED, EU_ERROR_PASSWORD_NOT_SET},
            {CKR_DEVICE_REMOVED, EU_ERROR_KEY_MEDIAS_ACCESS_FAILED},
            {CKR_TOKEN_WRITE_PROTECTED, EU_ERROR_KEY_MEDIAS_WRITE_PROTECTED},
            {CKR_USER_ALREADY_LOGGED_IN, EU_ERROR_PKCS11 + CKR_USER_ALREADY_LOGGED_IN},
            {CKR_VENDOR_DEFINED + 17, EU_ERROR_PKCS11 + 0xFFF}}) {
        now = {.refusal = refusal};
        EXPECT_EQ(sign(nullptr, wrong), expected);
        EXPECT_EQ(destroy(wrong), expected);
        EXPECT_EQ(generate(wrong), expected);
        now = {};
        EXPECT_EQ(key.sign(), EU_ERROR_NONE);
    }
}

TEST(Key, IsWhatTheTokenOffersAndSigns) {
    using offers = std::map<CK_MECHANISM_TYPE, CK_ULONG>;
    constexpr auto ec = CKM_EC_KEY_PAIR_GEN, rsa = CKM_RSA_PKCS_KEY_PAIR_GEN;
    for (const auto& [offered, bits] : std::map<offers, int>{{{}, 256},
             {{{ec, 256}, {CKM_ECDSA, 0}, {rsa, 0}, {CKM_RSA_PKCS, 0}}, 256},
             {{{ec, 255}, {CKM_ECDSA, 0}, {rsa, 0}, {CKM_RSA_PKCS, 0}}, 3072},
             {{{rsa, 3072}, {CKM_RSA_PKCS, 0}}, 3072},
             {{{rsa, 3071}, {CKM_SHA256_RSA_PKCS, 0}}, 2048}}) {
        token.offers = offered;
        const auto own = makeSigner();
        EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(own.get())), bits);
        bytes signature;
        EXPECT_EQ(sign(&signature), EU_ERROR_NONE);
        EXPECT_EQ(verify(data, signature, der(own)), EU_ERROR_NONE);
        EXPECT_GT(signature.size(), der(own).size() + 200); // which is inside
    }
    empty();
    for (const offers& few : {offers{{rsa, 2047}, {CKM_RSA_PKCS, 0}}, {{ec, 256}, {rsa, 2048}}}) {
        token.offers = few;
        EXPECT_EQ(generate(), EU_ERROR_KEY_MEDIAS_NO_MECHANISM);
    }
    token = {.insists = CKA_EXTRACTABLE};
    EXPECT_EQ(generate(), EU_ERROR_KEY_MEDIAS_EXTRACTABLE);
    EXPECT_EQ(count(), 0U);
    token = {};
}

// Once, at the price of a login; not what would fail again, nor another key in its place.
TEST(Key, IsOpenedAgainWhereItsLoginHasEnded) {
    constexpr bool asks = true; // the token, for the password before each signature
    for (const auto& [result, asksAgain, renewed] : {std::tuple(CKR_SESSION_CLOSED, !asks, true),
             {CKR_SESSION_HANDLE_INVALID, !asks, true}, {CKR_KEY_HANDLE_INVALID, !asks, true},
             {CKR_OBJECT_HANDLE_INVALID, !asks, true}, {CKR_USER_NOT_LOGGED_IN, !asks, true},
             {CKR_USER_NOT_LOGGED_IN, asks, false}, {CKR_DEVICE_MEMORY, !asks, false}}) {
        empty();
        put({.tells = {{CKA_ALWAYS_AUTHENTICATE, {asksAgain}}}});
        const opened_key key;
        now = {.failAt = 1, .failures = 1, .failure = result};
        EXPECT_EQ(key.sign(), renewed ? EU_ERROR_NONE : EU_ERROR_PKCS11 + result);
        EXPECT_EQ(now.logins, renewed);
        now = {};
    }
    const opened_key key;
    empty();
    put({});
    EXPECT_EQ(key.sign(), EU_ERROR_KEY_NOT_FOUND);
}

// A generation that was cut short leaves one private key, which nothing tells of. Where there is
// more, it is somebody's key, and stays until that is destroyed.
TEST(Key, AloneIsALeftover) {
    const object own{{CKA_LABEL, {'o', 'w', 'n'}}}, kep{{CKA_LABEL, {'K', 'E', 'P'}}},
        publicKeys{{CKA_CLASS, number(CKO_PUBLIC_KEY)}},
        privateKeys{{CKA_CLASS, number(CKO_PRIVATE_KEY)}, {CKA_LOCAL, {1}}};
    struct row {
        std::vector<object> gone;
        DWORD result;
        std::size_t generated, destroyed; // the objects left then
    };
    for (const auto& [gone, result, generated, destroyed] :
        {row{{publicKeys, own, kep}, EU_ERROR_NONE, strangers + 4, strangers},
            {{publicKeys, own}, EU_ERROR_KEY_EXISTS, strangers + 2, strangers},
            {{publicKeys, kep}, EU_ERROR_KEY_EXISTS, strangers + 2, strangers + 1},
            {{privateKeys}, EU_ERROR_NONE, strangers + 7, strangers}}) {
        makeSigner();
        for (const object& each : gone) { empty(each); }
        EXPECT_EQ(generate(), result);
        EXPECT_EQ(count(), generated);
        EXPECT_EQ(destroy(), EU_ERROR_NONE);
        EXPECT_EQ(count(), destroyed);
    }
}

TEST(Key, ThatMayNotSignComesLastAndCanBeRemoved) {
    makeSigner(other);
    EXPECT_EQ(find(), EU_ERROR_NONE);
    EXPECT_EQ(sign(), EU_ERROR_CERT_USAGE);
    EXPECT_EQ(destroy(), EU_ERROR_NONE);
    EXPECT_EQ(count(), strangers);
    certify(other);
    put({}, ~0UL); // which comes first, though it is listed last
    EXPECT_EQ(sign(), EU_ERROR_NONE);
}

// With a destruction, or before a generation, goes what a killed process had no time to complete,
// and nothing else.
TEST(Key, ThatWasBegunIsCleared) {
    makeSigner();
    const bytes ds{'D', 'S'};
    put({.certificate = {}, .tells = {{CKA_ID, bytes(17, 0)}, {CKA_LABEL, ds}}}, 0, false);
    const object begun{{CKA_CLASS, number(CKO_PUBLIC_KEY)}, {CKA_TOKEN, {0}}},
        ec{{CKA_KEY_TYPE, number(CKK_EC)}, {CKA_EC_PARAMS, {}}, {CKA_EC_POINT, {}}},
        rsa{{CKA_KEY_TYPE, number(CKK_RSA)}, {CKA_MODULUS, {}}, {CKA_PUBLIC_EXPONENT, {3}}};
    const maintenance with;
    for (const object& whole :
        std::vector<object>{{}, {{CKA_TOKEN, {1}}}, {{CKA_LABEL, ds}}, {{CKA_ID, ds}}}) {
        with.create(whole, begun, ec);
        with.create(whole, begun, rsa);
    }
    with.create(object{{CKA_EC_PARAMS, ds}}, begun, ec);
    with.create(object{{CKA_MODULUS, ds}}, begun, rsa);
    EXPECT_EQ(destroy(), EU_ERROR_NONE);
    EXPECT_EQ(count(), strangers + 8);
    with.create(begun, ec);
    EXPECT_EQ(generate(), EU_ERROR_NONE);
    EXPECT_EQ(count(), strangers + 8 + 4);
}

TEST(Key, MadeMeanwhileByAnotherMachineIsTheOnlyOne) {
    empty();
    cards = {{.serial = "\xE9"}};
    EXPECT_EQ(list(), EU_ERROR_NONE);
    now = {};
    EXPECT_EQ(generate(), EU_ERROR_NONE);
    empty();
    now = {.failAt = now.calls / 2, .event = [] { put({}); }};
    EXPECT_EQ(generate(), EU_ERROR_KEY_EXISTS);
    EXPECT_EQ(count(), 3U);
    cards = {{}};
}

TEST(Interface, RefusesWhatItDoesNotDo) {
    makeSigner();
    const opened_key key;
    BYTE* out = nullptr;
    DWORD size = 0;
    EU_CERT_INFO_EX* info = nullptr;
    EU_SIGN_INFO signer{};
    std::array<char, EU_DESCRIPTION_SIZE> text{};
    EU_KEY_MEDIA ofOtherType = right, pastTheLast = right, endless = right;
    ofOtherType.dwTypeIndex = pastTheLast.dwDevIndex = 1;
    std::ranges::fill(endless.szPassword, '1');
    const auto sign = [&](DWORD how, BOOL external) {
        return EUCtxSignData(key.key, how, &data[0], 1, external, 1, &out, &size);
    };
    const auto signFile = [&](DWORD how, BOOL external) {
        return EUCtxSignFile(key.key, how, "data", external, 1, "signature");
    };
    const auto own = [&](DWORD type, DWORD usage, EU_CERT_INFO_EX** to) {
        return EUCtxGetOwnCertificate(key.key, type, usage, to, &out, &size);
    };
    const auto verify = [&](const void* hash, DWORD index, const void* settings) {
        const BYTE one = 0;
        return EUVerifyDataWithParams(
            &one, 1, hash, 0, &one, 1, index, nullptr, 0, &one, 1, settings, &signer);
    };
    const auto results = [&] {
        return std::vector{sign(2, 1), signFile(2, 1), own(2, 1, &info), own(1, 2, &info),
            own(1, 1, nullptr), destroy(ofOtherType), destroy(endless), sign(1, 0), signFile(1, 0),
            verify(&size, 0, nullptr), verify(nullptr, 1, nullptr), verify(nullptr, 0, &size),
            generate(right, nullptr, &size), EUEnumKeyMediaTypes(1, &text[0]),
            EUEnumKeyMediaDevices(1, 0, &text[0]), destroy(pastTheLast)};
    };
    std::vector<DWORD> expected(16, EU_WARNING_END_OF_ENUM);
    std::fill_n(expected.begin(), 13, EU_ERROR_NOT_SUPPORTED);
    std::fill_n(expected.begin(), 7, EU_ERROR_BAD_PARAMETER);
    expected.back() = EU_ERROR_KEY_MEDIAS_ACCESS_FAILED;
    EXPECT_EQ(results(), expected);
    EUFinalize();
    EXPECT_EQ(results(), std::vector<DWORD>(16, EU_ERROR_NOT_INITIALIZED));
    EXPECT_EQ(EUInitialize(), EU_ERROR_NONE);
    now = {};
    EXPECT_EQ(find(), EU_ERROR_NONE);
    EUFinalize(); // forgets what was found
    EXPECT_EQ(EUInitialize() + made::sign(), EU_ERROR_NONE);
    EXPECT_EQ(now.searches, 3);
}

// Whether a lock is had, or let go, by another holder than the library, as another process would
// be.
bool takes(int file, short type, off_t start, off_t length) {
    struct flock lock {
        type, SEEK_SET, start, length, 0
    };
    return ::fcntl(file, F_OFD_SETLK, &lock) == 0;
}

TEST(Lock, IsWaitedForWithPatience) {
    makeSigner();
    cards[0].serial = std::to_string(::getpid()); // whose keys nobody else makes
    struct stat self {};
    ASSERT_EQ(::stat("/proc/self/exe", &self), 0);
    // As processes know them that have another version of the library.
    constexpr off_t all = 1L << 40;
    const off_t lists = (1L << 60) + static_cast<off_t>(self.st_ino & 0x3FFFF) * (1L << 42),
                logins = lists + (1L << 41),
                keys = (1L << 61) +
                       static_cast<off_t>(std::hash<std::string>{}(cards[0].serial) & 0xFFFFFFFF);
    const int holder = ::open("/dev/null", O_RDWR), third = ::open("/dev/null", O_RDWR);
    // The other holder, after a second; or all the time, in the way of the lists of both modules.
    enum habit { stays, leaves, changes };
    struct row {
        habit how;
        short type;
        off_t start;
        std::function<DWORD()> act;
        std::chrono::seconds waits;
        DWORD result = EU_ERROR_NONE;
    };
    const auto signs = [] { return sign(); };
    off_t number = 0;
    for (const auto& [how, type, start, act, waits, result] : {row{stays, F_WRLCK, lists, list, 5s},
             {leaves, F_WRLCK, lists, list, 1s}, {stays, F_RDLCK, lists, list, 0s},
             {changes, F_WRLCK, lists, list, 240s}, {stays, F_RDLCK, lists, signs, 5s},
             {stays, F_RDLCK, logins, find, 0s}, {stays, F_WRLCK, logins, find, 30s},
             {stays, F_RDLCK, logins, signs, 30s}, {leaves, F_WRLCK, logins, signs, 1s},
             {stays, F_RDLCK, keys, [] { return generate(); }, 60s, EU_ERROR_KEY_MEDIAS_BUSY},
             {stays, F_WRLCK, keys, [] { return destroy(); }, 60s, EU_ERROR_KEY_MEDIAS_BUSY},
             {leaves, F_WRLCK, keys, [] { return destroy(); }, 1s}}) {
        SCOPED_TRACE(number);
        EXPECT_EQ(list(), EU_ERROR_NONE);
        const auto take = [&, type = type, start = start] {
            return takes(holder, type, start, (start == keys ? 1 : all) + ++number);
        };
        EXPECT_TRUE(take());
        slept = 0s;
        meanwhile = [&, how = how] {
            if (how == leaves && slept >= 1s) { takes(holder, F_UNLCK, 0, 0); }
            if (how == changes) { take(); }
        };
        EXPECT_EQ(act(), result);
        EXPECT_TRUE(slept > waits - 100ms && slept < waits + 100ms) << slept.count();
        takes(holder, F_UNLCK, 0, 0);
    }
    EXPECT_TRUE(takes(holder, F_WRLCK, lists + all / 2, 1));
    now = {.failAt = 1, .event = [&] { // what nobody else holds is held
               EXPECT_FALSE(takes(third, F_WRLCK, lists, 1));
               EXPECT_FALSE(takes(third, F_WRLCK, lists + all - 1, 1));
           }};
    meanwhile = [] {};
    EXPECT_EQ(list(), EU_ERROR_NONE);
    EXPECT_TRUE(takes(third, F_WRLCK, lists, all / 2));
    ::close(holder);
    ::close(third);
    meanwhile = nullptr;
    cards = {{}};
}

constexpr int for_good = 1'000'000;

// Lets every call of an operation fail, the k-th after what prepares the token: once, with what
// may be tried instead, or for good since the token has gone, which is then told. Private keys may
// be made first, and all public keys be let to verify.
template <class Prepare, class Act, class Check>
void failEachCall(Prepare prepare, Act act, Check check) {
    for (const CK_ATTRIBUTE_TYPE insists : {CK_ATTRIBUTE_TYPE{0}, CKA_VERIFY}) {
        token = {.insists = insists, .halves = true};
        for (const auto& [failures, code] : std::map<int, CK_RV>{{1, CKR_USER_TYPE_INVALID},
                 {2, CKR_ATTRIBUTE_VALUE_INVALID}, {for_good, CKR_DEVICE_ERROR}}) {
            bool reached = true;
            for (int k = 1; reached; ++k) {
                prepare();
                EXPECT_EQ(list(), EU_ERROR_NONE);
                now = {.failAt = k, .failures = failures, .failure = code};
                const DWORD result = act();
                reached = now.calls >= k;
                now = {};
                SCOPED_TRACE(std::to_string(k) + " " + std::to_string(code));
                EXPECT_TRUE(reached || (k > 3 && result == EU_ERROR_NONE));
                EXPECT_TRUE(failures != for_good || result == EU_ERROR_NONE ||
                            result == EU_ERROR_KEY_MEDIAS_ACCESS_FAILED);
                check(result);
            }
        }
    }
    token = {};
}

TEST(Fault, GenerationLeavesAWholeKeyOrNone) {
    // Where a call that removes something fails, it stays until the next generation.
    const std::set<DWORD> leaving{EU_ERROR_NONE, EU_ERROR_KEY_MEDIAS_ACCESS_FAILED,
        EU_ERROR_KEY_MEDIAS_GENERATION_REFUSED, EU_ERROR_PKCS11 + CKR_ATTRIBUTE_VALUE_INVALID};
    std::set<DWORD> results;
    const auto check = [&](DWORD result) {
        const bool made = result == EU_ERROR_NONE, shows = find() == EU_ERROR_NONE;
        results.insert(result);
        EXPECT_TRUE(shows == made || (token.insists != 0 && leaving.contains(result)));
        EXPECT_TRUE(leaving.contains(result) || count() == 0);
        EXPECT_EQ(generate(), shows ? EU_ERROR_KEY_EXISTS : EU_ERROR_NONE);
        EXPECT_TRUE(made || !shows || destroy() + generate() == 0);
        const auto left = count(); // a key that was copied may be left
        EXPECT_TRUE(left == 4 || (made && left == 5)) << left;
    };
    failEachCall([] { empty(); }, [] { return generate(); }, check);
    for (const DWORD refused : {EU_ERROR_KEY_MEDIAS_ADMINISTRATOR,
             EU_ERROR_KEY_MEDIAS_GENERATION_REFUSED, EU_ERROR_KEY_MEDIAS_CHANGE_REFUSED}) {
        EXPECT_TRUE(results.contains(refused)) << refused;
    }
}

TEST(Fault, DestructionCanBeRepeated) {
    makeSigner();
    EXPECT_EQ(destroy(), EU_ERROR_NONE);
    failEachCall([] { certify(); }, [] { return destroy(); },
        [](DWORD result) {
            const DWORD there = result == EU_ERROR_NONE ? EU_ERROR_KEY_NOT_FOUND : EU_ERROR_NONE;
            EXPECT_EQ(find(), there);
            EXPECT_EQ(destroy(), there);
            EXPECT_EQ(count(), strangers);
        });
}

TEST(Fault, TheKeyIsAsItWasBefore) {
    makeSigner();
    const opened_key key;
    for (const auto& act :
        calls{find, [] { return list() == EU_ERROR_NONE ? EU_ERROR_NONE : find(); },
            [] { return sign(); }, [&] { return key.sign(); }}) {
        failEachCall([] {}, act, [&](DWORD) { EXPECT_EQ(key.sign(), EU_ERROR_NONE); });
    }
}

TEST(Verification, NoticesEveryChangedByte) {
    const auto all = kinds();
    for (const auto& each : std::span(all).first(own_kinds)) {
        std::array parts{data, each.signature, der(each.certificate)};
        ASSERT_EQ(verify(parts[0], parts[1], parts[2]), EU_ERROR_NONE);
        for (bytes& part : parts) {
            for (std::size_t i = 0; i < part.size() * 5; ++i) {
                const unsigned char before = part[i / 5];
                part[i / 5] ^= bytes{0x01, 0x07, 0x0A, 0x20, 0xFF}[i % 5];
                EXPECT_NE(verify(parts[0], parts[1], parts[2]), EU_ERROR_NONE) << i;
                part[i / 5] = before;
            }
        }
    }
}

} // namespace
