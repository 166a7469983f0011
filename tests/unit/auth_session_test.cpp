#include <gtest/gtest.h>
#include <krohttp/auth.h>
#include <krohttp/utils.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "support/messages.h"
#include "support/script_stream.h"
#include "support/trace_capture.h"

namespace {

using namespace std::string_literals;

using Lines = std::vector<std::string>;

constexpr const char* kNone = "(none)";
std::string orNone(const char* text) { return text == nullptr ? kNone : text; }

// A request with these headers and the reply to it.
class Exchange {
 public:
  explicit Exchange(const std::string& headers = "", const std::string& target = "/")
      : input_("GET " + target + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n"),
        request_(incomingRequest(input_.stream())),
        reply_(http_replyCreate()) {}

  HttpRequest* request() const { return request_.get(); }
  HttpReply* reply() const { return reply_.get(); }

  // What the reply says, "Name: value".
  Lines replied() const {
    Lines headers;
    const char* name = nullptr;
    const char* value = nullptr;
    http_replyHeadersReset(reply());
    while (http_replyHeadersNext(reply(), &name, &value) == 0)
      headers.push_back(std::string(name) + ": " + orNone(value));
    return headers;
  }

 private:
  ScriptInput input_;
  RequestPtr request_;
  ReplyPtr reply_;
};

std::string cookieOf(const http_auth_session* session) { return "Cookie: kro/sessid="s + session->id + "\r\n"; }
std::string given(const http_auth_session* session, const std::string& path = "/app") {
  return "Set-Cookie: kro/sessid="s + session->id + "; path=" + path;
}
const std::string kTakenBack = "Set-Cookie: kro/sessid=; expires=Thu, 01-Jan-1970 00:00:01 GMT; path=/app";
const std::string kUnknownId = "Cookie: kro/sessid=AAAAAAAAAAAAAAAAAAAAAAAA\r\n";

// A session context, and what its check was asked.
class Sessions {
 public:
  explicit Sessions(int32_t timeout = 60, const char* path = "/app") {
    memset(&context, 0xa5, sizeof context);
    http_authCookieInit(&context, path, timeout);
    context.check = check;
  }
  ~Sessions() {
    http_authCookieCleanup(&context);
    EXPECT_EQ(context.sessions, nullptr);
  }
  Sessions(const Sessions&) = delete;
  Sessions& operator=(const Sessions&) = delete;

  // A login of this user, with a password or, where there is a token, with that.
  http_auth_session* login(const char* user, const char* token = nullptr) {
    const Exchange exchange;
    http_auth_session* const session =
        token == nullptr ? http_authCookieAuthenticateWithCredentials(&context, exchange.request(), exchange.reply(),
                                                                      user, "secret", this)
                         : http_authCookieAuthenticateWithToken(&context, exchange.request(), exchange.reply(), user,
                                                                token, this, nullptr);
    EXPECT_NE(session, nullptr);
    asked.clear();
    return session;
  }

  http_auth_session* find(const std::string& headers) {
    const Exchange exchange(headers);
    return http_authCookieCheckSession(&context, exchange.request(), exchange.reply());
  }

  // The users of the list, in its order.
  Lines users() const {
    Lines users;
    for (const http_auth_session* session = context.sessions; session != nullptr; session = session->next)
      users.push_back(orNone(session->username));
    return users;
  }

  http_auth_cookie context;
  int result = 0;
  Lines asked;
  std::function<void()> whileChecking;

 private:
  static int check(const char* username, const char* password, void* data) {
    auto* sessions = static_cast<Sessions*>(data);
    sessions->asked.push_back(orNone(username) + " " + orNone(password));
    if (sessions->whileChecking) sessions->whileChecking();
    return sessions->result;
  }
};

// Runs step within one second of the clock, again if it was not; step makes everything it needs.
void withinASecond(const std::function<void(time_t now)>& step) {
  for (int round = 0; round < 100; ++round) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    // Begin where the second has room; time() may lag behind the clock by a tick.
    if (now.tv_nsec < 50'000'000 || now.tv_nsec > 700'000'000) {
      const timespec pause = {0, 20'000'000};
      nanosleep(&pause, nullptr);
      continue;
    }
    step(now.tv_sec);
    return;
  }
  ADD_FAILURE() << "no second was long enough";
}

// What a session's data saw: how often it was released.
struct Data {
  int released = 0;
  std::function<void()> whileReleasing;
  static void release(void* data) {
    auto* self = static_cast<Data*>(data);
    ++self->released;
    if (self->whileReleasing) self->whileReleasing();
  }
};

// ---- the context and its records -----------------------------------------------------------------------------------

TEST(SessionContext, IsInitialized) {
  http_auth_cookie context;
  memset(&context, 0xa5, sizeof context);
  const char* const path = "/path";
  http_authCookieInit(&context, path, -7);
  EXPECT_EQ(context.path, path);
  EXPECT_STREQ(context.cookieName, "kro/sessid");
  EXPECT_EQ(context.timeout, -7);
  EXPECT_EQ(context.sessions, nullptr);
  http_authCookieCleanup(&context);
  EXPECT_EQ(context.sessions, nullptr);
  http_authCookieCleanup(&context);
}

TEST(SessionContext, FieldsStandInTheirOrder) {
  const size_t kContext[] = {offsetof(http_auth_cookie, path), offsetof(http_auth_cookie, cookieName),
                             offsetof(http_auth_cookie, timeout), offsetof(http_auth_cookie, sessions),
                             offsetof(http_auth_cookie, check)};
  for (size_t at = 1; at < std::size(kContext); ++at) EXPECT_LT(kContext[at - 1], kContext[at]) << at;
  const size_t kSession[] = {offsetof(http_auth_session, id),       offsetof(http_auth_session, username),
                             offsetof(http_auth_session, token),    offsetof(http_auth_session, lastActivity),
                             offsetof(http_auth_session, userData), offsetof(http_auth_session, userDataRelease),
                             offsetof(http_auth_session, sso),      offsetof(http_auth_session, ssoContext),
                             offsetof(http_auth_session, next)};
  for (size_t at = 1; at < std::size(kSession); ++at) EXPECT_LT(kSession[at - 1], kSession[at]) << at;
  static_assert(std::is_same_v<decltype(http_auth_cookie::timeout), int32_t>);
  static_assert(sizeof(http_auth_session::sso) == 4);
}

TEST(SessionRecord, OfALoginWithPassword) {
  withinASecond([](time_t now) {
    Sessions sessions;
    char user[] = "user";
    const Exchange exchange;
    http_auth_session* const session = http_authCookieAuthenticateWithCredentials(
        &sessions.context, exchange.request(), exchange.reply(), user, "pass", &sessions);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session, sessions.context.sessions);
    EXPECT_NE(session->username, user);
    memset(user, 'x', 4);
    EXPECT_STREQ(session->username, "user");
    EXPECT_STREQ(http_authSessionUsername(session), "user");
    EXPECT_EQ(session->token, nullptr);
    EXPECT_LE(session->lastActivity, now + 1);
    EXPECT_GE(session->lastActivity, now);
    EXPECT_EQ(session->userData, nullptr);
    EXPECT_EQ(http_authSessionUserData(session), nullptr);
    EXPECT_EQ(session->userDataRelease, nullptr);
    EXPECT_EQ(session->sso, 0U);
    EXPECT_EQ(http_authIsSsoSession(session), 0);
    EXPECT_EQ(session->ssoContext, nullptr);
    EXPECT_EQ(http_authGetSsoContext(session), nullptr);
    EXPECT_EQ(session->next, nullptr);
    EXPECT_EQ(sessions.asked, Lines({"user pass"}));
    EXPECT_EQ(exchange.replied(), Lines({given(session)}));
  });
}

TEST(SessionRecord, OfALoginWithToken) {
  Sessions sessions;
  char user[] = "user";
  char token[] = "token";
  int ssoContext = 0;
  const Exchange exchange;
  http_auth_session* const session = http_authCookieAuthenticateWithToken(
      &sessions.context, exchange.request(), exchange.reply(), user, token, &sessions, &ssoContext);
  ASSERT_NE(session, nullptr);
  memset(user, 'x', 4);
  memset(token, 'x', 5);
  EXPECT_STREQ(http_authSessionUsername(session), "user");
  EXPECT_STREQ(session->token, "token");
  EXPECT_EQ(session->sso, 1U);
  EXPECT_EQ(http_authIsSsoSession(session), 1);
  EXPECT_EQ(http_authGetSsoContext(session), &ssoContext);
  EXPECT_EQ(sessions.asked, Lines({"user (none)"}));
  EXPECT_EQ(exchange.replied(), Lines({given(session)}));
}

TEST(SessionRecord, SsoIsOneExactly) {
  http_auth_session session = {};
  for (const uint32_t sso : {0U, 1U, 2U, 256U, UINT32_MAX}) {
    session.sso = sso;
    EXPECT_EQ(http_authIsSsoSession(&session), sso == 1 ? 1 : 0) << sso;
  }
}

TEST(SessionRecord, SettingDataDoesNotReleaseTheOldOne) {
  http_auth_session session = {};
  Data first;
  Data second;
  http_authSessionSetUserData(&session, &first, Data::release);
  EXPECT_EQ(http_authSessionUserData(&session), &first);
  EXPECT_EQ(session.userDataRelease, &Data::release);
  http_authSessionSetUserData(&session, &second, nullptr);
  EXPECT_EQ(http_authSessionUserData(&session), &second);
  EXPECT_EQ(session.userDataRelease, nullptr);
  http_authSessionSetUserData(&session, nullptr, Data::release);
  EXPECT_EQ(http_authSessionUserData(&session), nullptr);
  EXPECT_EQ(first.released + second.released, 0);
}

TEST(SessionList, TheNewestIsFirst) {
  Sessions sessions;
  sessions.login("a");
  sessions.login("b");
  sessions.login("c", "token");
  sessions.login("a");
  EXPECT_EQ(sessions.users(), Lines({"a", "c", "b", "a"}));
}

TEST(SessionId, IsTwentyFourCharactersAndNeverTheSame) {
  Sessions sessions;
  std::unordered_set<std::string> seen;
  std::unordered_set<char> letters;
  for (int round = 0; round < 20000; ++round) {
    const http_auth_session* const session = sessions.login("user");
    ASSERT_NE(session, nullptr);
    const std::string id = session->id;
    ASSERT_EQ(id.size(), 24U);
    ASSERT_EQ(id.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"),
              std::string::npos)
        << id;
    ASSERT_TRUE(seen.insert(id).second) << id;
    letters.insert(id.begin(), id.end());
    if (round % 100 == 99) http_authCookieCleanup(&sessions.context);
  }
  EXPECT_EQ(letters.size(), 64U);
}

TEST(SessionId, WithoutADescriptorThereIsNone) {
  Sessions sessions;
  const Exchange exchange("", "/?username=user&password=pass");
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  const TraceCapture trace;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool opened =
      http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(), "user",
                                                 "pass", &sessions) != nullptr;
  const bool openedByUri =
      http_authCookieAuthenticate(&sessions.context, exchange.request(), exchange.reply(), &sessions) != nullptr;
  const bool openedByToken =
      http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "user", "token",
                                           &sessions, nullptr) != nullptr;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(opened);
  EXPECT_FALSE(openedByUri);
  EXPECT_FALSE(openedByToken);
  const std::string reason = "http-au[x]unable to open /dev/urandom: Too many open files";
  const std::string result = "http-au[x]unable to open session";
  EXPECT_EQ(trace.said(), TraceLines({reason, result, reason, result, reason, result}));
  EXPECT_EQ(sessions.users(), Lines());
  EXPECT_EQ(exchange.replied(), Lines());
}

TEST(SessionId, LeavesNoDescriptorBehind) {
  Sessions sessions;
  sessions.login("user");
  const int before = dup(0);
  close(before);
  for (int round = 0; round < 10; ++round) sessions.login("user");
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, before);
}

TEST(SessionOpen, IsANotice) {
  Sessions sessions;
  const Exchange exchange;
  const TraceCapture trace{"http-auth"};
  ASSERT_NE(http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(), "user",
                                                       "pass", &sessions),
            nullptr);
  EXPECT_EQ(trace.said(), TraceLines({"http-au[i]no session id", "http-au[n]session opened"}));
}

TEST(SessionOpen, ThePathIsTheContexts) {
  for (const char* path : {"/", "/a b", "", static_cast<const char*>(nullptr)}) {
    Sessions sessions(60, path);
    const Exchange login;
    const http_auth_session* const session = http_authCookieAuthenticateWithCredentials(
        &sessions.context, login.request(), login.reply(), "user", "pass", &sessions);
    ASSERT_NE(session, nullptr);
    const std::string attribute = path == nullptr ? "" : "; path="s + path;
    EXPECT_EQ(login.replied(), Lines({"Set-Cookie: kro/sessid="s + session->id + attribute}));
    const Exchange logout(cookieOf(session));
    EXPECT_EQ(http_authCookieCloseSession(&sessions.context, logout.request(), logout.reply()), 0);
    EXPECT_EQ(logout.replied(), Lines({"Set-Cookie: kro/sessid=; expires=Thu, 01-Jan-1970 00:00:01 GMT" + attribute}));
  }
}

// ---- checking ------------------------------------------------------------------------------------------------------

TEST(SessionCheck, FindsEachByItsId) {
  Sessions sessions;
  http_auth_session* const first = sessions.login("first");
  http_auth_session* const second = sessions.login("second");
  http_auth_session* const third = sessions.login("first");
  for (http_auth_session* session : {first, second, third, second}) {
    const Exchange exchange(cookieOf(session));
    const TraceCapture trace;
    EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), session);
    EXPECT_EQ(exchange.replied(), Lines());
    EXPECT_EQ(trace.said(), TraceLines());
  }
  EXPECT_EQ(sessions.asked, Lines());
}

TEST(SessionCheck, AmongOtherCookies) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("user");
  const std::string pair = "kro/sessid="s + session->id;
  EXPECT_EQ(sessions.find("Cookie: a=1; " + pair + "; b=2\r\n"), session);
  EXPECT_EQ(sessions.find("cookie:" + pair + "\r\n"), session);
  EXPECT_EQ(sessions.find("Cookie: " + pair + "\r\nCookie: kro/sessid=x\r\n"), session) << "the first header";
  EXPECT_EQ(sessions.find("Cookie: kro/sessid=x; " + pair + "\r\n"), session) << "the last cookie";
  EXPECT_EQ(sessions.users(), Lines({"user"}));
}

struct NoSessionCase {
  const char* name;
  const char* headers;
  Lines replied;
  TraceLines said;
  int closed;  // what closing gives
  TraceLines saidByClosing;
};
void PrintTo(const NoSessionCase& row, std::ostream* out) { *out << row.name; }

class NoSession : public testing::TestWithParam<NoSessionCase> {};

TEST_P(NoSession, IsFound) {
  Sessions sessions;
  const http_auth_session* const other = sessions.login("other");
  const Exchange exchange(GetParam().headers);
  const TraceCapture trace{"http-auth"};
  EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), nullptr);
  EXPECT_EQ(exchange.replied(), GetParam().replied);
  EXPECT_EQ(trace.said(), GetParam().said);
  EXPECT_EQ(sessions.context.sessions, other);
}

TEST_P(NoSession, IsClosed) {
  Sessions sessions;
  const http_auth_session* const other = sessions.login("other");
  const Exchange exchange(GetParam().headers);
  TraceCapture trace{"http-auth"};
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), GetParam().closed);
  EXPECT_EQ(exchange.replied(), GetParam().replied);
  EXPECT_EQ(trace.said(), GetParam().saidByClosing);
  EXPECT_EQ(sessions.context.sessions, other);
}

const TraceLines kNoHeader = {"http-au[i]no session id"};
const TraceLines kNoCookie = {"http-au[n]unable to fetch session id in cookie kro/sessid"};
const TraceLines kNoCookieToClose = {"http-au[i]unable to fetch session id"};
const TraceLines kNotValid = {"http-au[i]request as a session id but the session is not valid, removing it",
                              "http-au[i]removing sessid cookie"};
const TraceLines kRemoved = {"http-au[i]removing sessid cookie"};

INSTANTIATE_TEST_SUITE_P(
    Table, NoSession,
    testing::Values(
        NoSessionCase{"WithoutCookies", "", {}, kNoHeader, -1, kNoHeader},
        NoSessionCase{"SetCookie", "Set-Cookie: kro/sessid=x\r\n", {}, kNoHeader, -1, kNoHeader},
        NoSessionCase{"OtherCookie", "Cookie: a=1\r\n", {}, kNoCookie, 0, kNoCookieToClose},
        NoSessionCase{"OtherCase", "Cookie: KRO/SESSID=x; kro/Sessid=y\r\n", {}, kNoCookie, 0, kNoCookieToClose},
        NoSessionCase{"LongerName", "Cookie: kro/sessid2=x; xkro/sessid=y\r\n", {}, kNoCookie, 0, kNoCookieToClose},
        NoSessionCase{"InASecondHeader", "Cookie: a=1\r\nCookie: kro/sessid=x\r\n", {}, kNoCookie, 0, kNoCookieToClose},
        NoSessionCase{"Empty", "Cookie: kro/sessid=\r\n", {kTakenBack}, kNotValid, 0, kRemoved},
        NoSessionCase{
            "Unknown", "Cookie: kro/sessid=AAAAAAAAAAAAAAAAAAAAAAAA\r\n", {kTakenBack}, kNotValid, 0, kRemoved},
        NoSessionCase{"Short", "Cookie: kro/sessid=A\r\n", {kTakenBack}, kNotValid, 0, kRemoved},
        NoSessionCase{
            "Idle", "Cookie: kro/sessid=A\r\nX-Kro-Request-Type: idle\r\n", {kTakenBack}, kNotValid, 0, kRemoved},
        NoSessionCase{"EqualsSigns", "Cookie: kro/sessid==\r\n", {kTakenBack}, kNotValid, 0, kRemoved}),
    [](const auto& row) { return row.param.name; });

TEST(NoSession, OfACookieWithoutValue) {
  Sessions sessions;
  const Exchange exchange("Cookie: kro/sessid\r\n");
  const TraceCapture quiet;
  EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), nullptr);
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), 0);
  EXPECT_EQ(exchange.replied(), Lines());
}

// The whole id counts, with case.
TEST(SessionCheck, NearlyTheIdIsNotTheId) {
  Sessions sessions;
  const std::string id = sessions.login("user")->id;
  for (size_t at = 0; at < id.size(); ++at) {
    std::string other = id;
    other[at] = other[at] == 'A' ? 'B' : 'A';
    EXPECT_EQ(sessions.find("Cookie: kro/sessid=" + other + "\r\n"), nullptr) << other;
    EXPECT_EQ(sessions.find("Cookie: kro/sessid=" + id.substr(0, at) + "\r\n"), nullptr) << at;
  }
  EXPECT_EQ(sessions.find("Cookie: kro/sessid=" + id + "A\r\n"), nullptr);
  EXPECT_EQ(sessions.find("Cookie: kro/sessid=\"" + id + "\"\r\n"), nullptr);
  EXPECT_EQ(sessions.find("Cookie: kro/sessid= " + id + "\r\n"), nullptr);
  EXPECT_NE(sessions.find("Cookie: kro/sessid=" + id + "\r\n"), nullptr);
}

TEST(SessionCheck, AnotherContextsIdIsUnknown) {
  Sessions mine;
  Sessions theirs;
  const http_auth_session* const session = theirs.login("user");
  EXPECT_EQ(mine.find(cookieOf(session)), nullptr);
  EXPECT_EQ(theirs.find(cookieOf(session)), session);
}

// ---- time ----------------------------------------------------------------------------------------------------------

struct TimeCase {
  const char* name;
  int32_t timeout;
  int64_t ago;  // seconds since the last activity
  bool valid;
};
void PrintTo(const TimeCase& row, std::ostream* out) { *out << row.name; }

class SessionTime : public testing::TestWithParam<TimeCase> {};

TEST_P(SessionTime, DecidesWhetherASessionIsValid) {
  const TimeCase& row = GetParam();
  for (const bool idle : {false, true}) {
    withinASecond([&](time_t now) {
      Sessions sessions(row.timeout);
      Data data;
      http_auth_session* const session = sessions.login("user");
      http_authSessionSetUserData(session, &data, Data::release);
      const Exchange exchange(cookieOf(session) + (idle ? "X-Kro-Request-Type: idle\r\n" : ""));
      session->lastActivity = now - row.ago;
      http_auth_session* const found =
          http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply());
      EXPECT_EQ(found, row.valid ? session : nullptr);
      EXPECT_EQ(data.released, row.valid ? 0 : 1);
      EXPECT_EQ(exchange.replied(), row.valid ? Lines() : Lines({kTakenBack}));
      EXPECT_EQ(sessions.users(), row.valid ? Lines({"user"}) : Lines());
      if (found != nullptr) {
        EXPECT_EQ(found->lastActivity, idle ? now - row.ago : now);
      }
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Table, SessionTime,
                         testing::Values(TimeCase{"AtOnce", 60, 0, true}, TimeCase{"SecondBefore", 60, 59, true},
                                         TimeCase{"ExactSecond", 60, 60, true}, TimeCase{"SecondBehind", 60, 61, false},
                                         TimeCase{"LongBehind", 60, 1000000, false}, TimeCase{"OneSecond", 1, 1, true},
                                         TimeCase{"OneSecondAndOne", 1, 2, false}, TimeCase{"Zero", 0, 1000000, true},
                                         TimeCase{"ZeroAtOnce", 0, 0, true}, TimeCase{"Negative", -1, 1000000, true},
                                         TimeCase{"MostNegative", INT32_MIN, 1000000, true},
                                         TimeCase{"Longest", INT32_MAX, 1000000, true},
                                         TimeCase{"LongestExactly", INT32_MAX, INT32_MAX, true},
                                         TimeCase{"LongestAndOne", INT32_MAX, INT32_MAX + int64_t{1}, false},
                                         TimeCase{"ClockSetBack", 60, -3600, true}),
                         [](const auto& row) { return row.param.name; });

TEST(SessionTime, OnlyTheOneThatIsAskedForIsDropped) {
  Sessions sessions;
  http_auth_session* const first = sessions.login("first");
  http_auth_session* const second = sessions.login("second");
  http_auth_session* const third = sessions.login("third");
  first->lastActivity = second->lastActivity = 0;
  EXPECT_EQ(sessions.find(cookieOf(third)), third);
  EXPECT_EQ(sessions.users(), Lines({"third", "second", "first"}));
  EXPECT_EQ(sessions.find(cookieOf(second)), nullptr);
  EXPECT_EQ(sessions.users(), Lines({"third", "first"}));
  EXPECT_EQ(sessions.find(kUnknownId), nullptr);
  EXPECT_EQ(sessions.users(), Lines({"third", "first"}));
  EXPECT_EQ(sessions.find(cookieOf(first)), nullptr);
  EXPECT_EQ(sessions.users(), Lines({"third"}));
}

TEST(SessionTime, AnExpiredOneIsTraced) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("user");
  session->lastActivity = 0;
  const Exchange exchange(cookieOf(session));
  const TraceCapture trace{"http-auth"};
  EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), nullptr);
  EXPECT_EQ(trace.said(), kNotValid);
}

struct IdleCase {
  const char* name;
  const char* header;
  bool idle;
};
void PrintTo(const IdleCase& row, std::ostream* out) { *out << row.name; }

class SessionIdle : public testing::TestWithParam<IdleCase> {};

TEST_P(SessionIdle, RequestsKeepNoSessionAlive) {
  withinASecond([](time_t now) {
    Sessions sessions;
    http_auth_session* const session = sessions.login("user");
    const Exchange exchange(cookieOf(session) + GetParam().header);
    session->lastActivity = now - 30;
    const TraceCapture trace{"http-auth"};
    EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), session);
    EXPECT_EQ(session->lastActivity, GetParam().idle ? now - 30 : now);
    EXPECT_EQ(trace.said(), GetParam().idle ? TraceLines() : TraceLines({"http-au[i]user is active, reset timer"}));
  });
}

INSTANTIATE_TEST_SUITE_P(
    Table, SessionIdle,
    testing::Values(IdleCase{"None", "", false}, IdleCase{"Idle", "X-Kro-Request-Type: idle\r\n", true},
                    IdleCase{"NameInOtherCase", "x-kro-request-TYPE:   idle \r\n", true},
                    IdleCase{"ValueInOtherCase", "X-Kro-Request-Type: Idle\r\n", false},
                    IdleCase{"Longer", "X-Kro-Request-Type: idle2\r\n", false},
                    IdleCase{"Shorter", "X-Kro-Request-Type: idl\r\n", false},
                    IdleCase{"Quoted", "X-Kro-Request-Type: \"idle\"\r\n", false},
                    IdleCase{"Active", "X-Kro-Request-Type: active\r\n", false},
                    IdleCase{"FirstOfTwo", "X-Kro-Request-Type: idle\r\nX-Kro-Request-Type: active\r\n", true},
                    IdleCase{"OtherHeader", "X-Kro-Request: idle\r\n", false}),
    [](const auto& row) { return row.param.name; });

// ---- logins --------------------------------------------------------------------------------------------------------

struct UriCase {
  const char* name;
  const char* target;
  Lines asked;
  TraceLines said;
};
void PrintTo(const UriCase& row, std::ostream* out) { *out << row.name; }

class UriLogin : public testing::TestWithParam<UriCase> {};

TEST_P(UriLogin, TakesUserAndPasswordFromTheQuery) {
  Sessions sessions;
  const Exchange exchange("", GetParam().target);
  const TraceCapture trace{"http-auth"};
  http_auth_session* const session =
      http_authCookieAuthenticate(&sessions.context, exchange.request(), exchange.reply(), &sessions);
  EXPECT_EQ(session == nullptr, GetParam().asked.empty());
  EXPECT_EQ(session, sessions.context.sessions);
  EXPECT_EQ(sessions.asked, GetParam().asked);
  EXPECT_EQ(trace.said(), GetParam().said);
  if (session == nullptr) {
    EXPECT_EQ(exchange.replied(), Lines());
    return;
  }
  EXPECT_EQ(exchange.replied(), Lines({given(session)}));
  EXPECT_EQ(orNone(session->username) + " ", GetParam().asked.front().substr(0, strlen(session->username) + 1));
  EXPECT_EQ(session->token, nullptr);
  EXPECT_EQ(session->sso, 0U);
}

const TraceLines kOpened = {"http-au[i]no session id", "http-au[n]session opened"};
const TraceLines kNoUsername = {"http-au[i]no session id", "http-au[n]no username"};
const TraceLines kNoPassword = {"http-au[i]no session id", "http-au[n]no password"};

INSTANTIATE_TEST_SUITE_P(
    Table, UriLogin,
    testing::Values(UriCase{"Both", "/login?username=bob&password=secret", {"bob secret"}, kOpened},
                    UriCase{"TheOtherWayRound", "/?password=secret&username=bob", {"bob secret"}, kOpened},
                    UriCase{"AmongOthers", "/?a=1&username=bob&b=2&password=secret&c", {"bob secret"}, kOpened},
                    UriCase{"Encoded", "/?username=b%20o%26b&password=s%3d%25c", {"b o&b s=%c"}, kOpened},
                    UriCase{"NamesEncoded", "/?user%6eame=bob&%70assword=x", {"bob x"}, kOpened},
                    UriCase{"EmptyPassword", "/?username=bob&password=", {"bob "}, kOpened},
                    UriCase{"EmptyUsername", "/?username=&password=secret", {" secret"}, kOpened},
                    UriCase{"WithoutValues", "/?username&password", {" "}, kOpened},
                    UriCase{"FirstCounts", "/?username=a&username=b&password=c&password=d", {"a c"}, kOpened},
                    UriCase{"NoQuery", "/login", {}, kNoUsername},
                    UriCase{"NoUsername", "/?password=secret", {}, kNoUsername},
                    UriCase{"NoPassword", "/?username=bob", {}, kNoPassword},
                    UriCase{"NamesInOtherCase", "/?Username=bob&Password=secret", {}, kNoUsername},
                    UriCase{"PasswordInOtherCase", "/?username=bob&PASSWORD=secret", {}, kNoPassword},
                    UriCase{"InThePath", "/username=bob&password=secret", {}, kNoUsername}),
    [](const auto& row) { return row.param.name; });

// The three logins of a request, each called with its own user.
enum Login { kByUri, kByCredentials, kByToken };
constexpr const char* kTarget = "/?username=bob&password=secret";

http_auth_session* logIn(Login login, Sessions& sessions, const Exchange& exchange) {
  switch (login) {
    case kByUri:
      return http_authCookieAuthenticate(&sessions.context, exchange.request(), exchange.reply(), &sessions);
    case kByCredentials:
      return http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(), "bob",
                                                        "secret", &sessions);
    case kByToken:
      return http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "bob",
                                                  "token", &sessions, nullptr);
  }
  return nullptr;
}

class AnyLogin : public testing::TestWithParam<Login> {
 protected:
  const char* asked() const { return GetParam() == kByToken ? "bob (none)" : "bob secret"; }
};

TEST_P(AnyLogin, IsRefusedByANegativeResultOnly) {
  for (const int result : {0, 1, 42, INT_MAX, -1, -2, INT_MIN}) {
    Sessions sessions;
    sessions.result = result;
    const Exchange exchange("", kTarget);
    const TraceCapture trace;
    const http_auth_session* const session = logIn(GetParam(), sessions, exchange);
    EXPECT_EQ(sessions.asked, Lines({asked()}));
    EXPECT_EQ(session != nullptr, result >= 0) << result;
    EXPECT_EQ(sessions.context.sessions, session);
    EXPECT_EQ(exchange.replied(), session == nullptr ? Lines() : Lines({given(session)}));
    EXPECT_EQ(trace.said(), session == nullptr ? TraceLines({"http-au[!]cookie authentication failed"}) : TraceLines());
  }
}

TEST_P(AnyLogin, WithoutACheckIsRefused) {
  Sessions sessions;
  sessions.context.check = nullptr;
  const Exchange exchange("", kTarget);
  const TraceCapture quiet;
  EXPECT_EQ(logIn(GetParam(), sessions, exchange), nullptr);
  EXPECT_EQ(sessions.users(), Lines());
  EXPECT_EQ(exchange.replied(), Lines());
}

TEST_P(AnyLogin, BehindAnExpiredSessionOpensAnother) {
  Sessions sessions;
  http_auth_session* const old = sessions.login("alice");
  const std::string cookie = cookieOf(old);
  old->lastActivity = 0;
  const Exchange exchange(cookie, kTarget);
  const http_auth_session* const session = logIn(GetParam(), sessions, exchange);
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(sessions.users(), Lines({"bob"}));
  EXPECT_EQ(exchange.replied(), Lines({kTakenBack, given(session)}));
}

TEST_P(AnyLogin, MayEndSessionsWhileChecking) {
  Sessions sessions;
  Data data;
  http_auth_session* const first = sessions.login("first");
  http_authSessionSetUserData(first, &data, Data::release);
  sessions.login("second", "token");
  sessions.whileChecking = [&] { http_authCookieInvalidateSession(&sessions.context, first); };
  const Exchange exchange("", kTarget);
  const http_auth_session* const session = logIn(GetParam(), sessions, exchange);
  EXPECT_EQ(session, sessions.context.sessions);
  EXPECT_EQ(sessions.users(), Lines({"bob", "second"}));
  EXPECT_EQ(data.released, 1);
}

TEST_P(AnyLogin, MayEndEverySessionWhileChecking) {
  Sessions sessions;
  Data data;
  http_authSessionSetUserData(sessions.login("first", "token"), &data, Data::release);
  sessions.login("second");
  sessions.whileChecking = [&] { http_authCookieCleanup(&sessions.context); };
  const Exchange exchange("", kTarget);
  EXPECT_NE(logIn(GetParam(), sessions, exchange), nullptr);
  EXPECT_EQ(sessions.users(), Lines({"bob"}));
  EXPECT_EQ(data.released, 1);
}

TEST_P(AnyLogin, MayLogInWhileChecking) {
  Sessions sessions;
  sessions.whileChecking = [&] {
    sessions.whileChecking = nullptr;
    sessions.login("nested");
  };
  const Exchange exchange("", kTarget);
  EXPECT_NE(logIn(GetParam(), sessions, exchange), nullptr);
  EXPECT_EQ(sessions.users(), Lines({"bob", "nested"}));
}

INSTANTIATE_TEST_SUITE_P(Logins, AnyLogin, testing::Values(kByUri, kByCredentials, kByToken), [](const auto& row) {
  return std::string(row.param == kByUri ? "Uri" : row.param == kByCredentials ? "Credentials" : "Token");
});

TEST(UriLogin, AValidSessionComesFirst) {
  withinASecond([](time_t now) {
    Sessions sessions;
    sessions.login("other");
    http_auth_session* const session = sessions.login("alice");
    for (const char* target : {"/", "/?username=bob&password=secret", "/?username=bob"}) {
      const Exchange exchange(cookieOf(session), target);
      session->lastActivity = now - 30;
      EXPECT_EQ(http_authCookieAuthenticate(&sessions.context, exchange.request(), exchange.reply(), &sessions),
                session);
      EXPECT_EQ(session->lastActivity, now);
      EXPECT_EQ(exchange.replied(), Lines());
    }
    EXPECT_EQ(sessions.asked, Lines());
    EXPECT_EQ(sessions.users(), Lines({"alice", "other"}));
  });
}

TEST(UriLogin, LeavesTheParametersReadable) {
  Sessions sessions;
  const Exchange exchange("", "/?a=1&username=b%20b&password=c&d=2");
  ASSERT_NE(http_authCookieAuthenticate(&sessions.context, exchange.request(), exchange.reply(), &sessions), nullptr);
  HttpUri* const uri = http_requestURI(exchange.request());
  char* value = nullptr;
  EXPECT_EQ(http_uriGetParameter(uri, "d", &value), 0);
  EXPECT_STREQ(value, "2");
  EXPECT_EQ(http_uriGetParameter(uri, "a", &value), 0);
  EXPECT_STREQ(value, "1");
}

TEST(CredentialsLogin, AValidSessionComesFirst) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("alice");
  const struct {
    const char* username;
    const char* password;
  } kRows[] = {{"bob", "secret"}, {nullptr, "secret"}, {"bob", nullptr}, {nullptr, nullptr}};
  for (const auto& row : kRows) {
    const Exchange exchange(cookieOf(session));
    EXPECT_EQ(http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(),
                                                         row.username, row.password, &sessions),
              session);
    EXPECT_EQ(exchange.replied(), Lines());
  }
  EXPECT_EQ(sessions.asked, Lines());
}

TEST(CredentialsLogin, WithoutUserOrPasswordIsRefusedSilently) {
  Sessions sessions;
  const struct {
    const char* username;
    const char* password;
  } kRows[] = {{nullptr, "secret"}, {"bob", nullptr}, {nullptr, nullptr}};
  for (const auto& row : kRows) {
    const Exchange exchange;
    TraceCapture trace{"http-auth"};
    EXPECT_EQ(http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(),
                                                         row.username, row.password, &sessions),
              nullptr);
    EXPECT_EQ(trace.said(), TraceLines({"http-au[i]no session id"}));
    EXPECT_EQ(exchange.replied(), Lines());
  }
  EXPECT_EQ(sessions.asked, Lines());
  EXPECT_EQ(sessions.users(), Lines());
}

TEST(CredentialsLogin, EmptyTextsAreTexts) {
  Sessions sessions;
  const Exchange exchange;
  EXPECT_NE(http_authCookieAuthenticateWithCredentials(&sessions.context, exchange.request(), exchange.reply(), "", "",
                                                       &sessions),
            nullptr);
  EXPECT_EQ(sessions.asked, Lines({" "}));
  EXPECT_EQ(sessions.users(), Lines({""}));
}

TEST(TokenLogin, TheSameTokenGivesTheSession) {
  withinASecond([](time_t now) {
    Sessions sessions;
    http_auth_session* const session = sessions.login("alice", "token");
    sessions.login("other", "token");
    const Exchange exchange(cookieOf(session));
    session->lastActivity = now - 30;
    int ssoContext = 0;
    const TraceCapture trace;
    EXPECT_EQ(http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "bob",
                                                   "token", &sessions, &ssoContext),
              session);
    EXPECT_EQ(session->lastActivity, now);
    EXPECT_STREQ(session->username, "alice");
    EXPECT_EQ(session->ssoContext, nullptr);
    EXPECT_EQ(exchange.replied(), Lines());
    EXPECT_EQ(sessions.asked, Lines());
    EXPECT_EQ(sessions.users(), Lines({"other", "alice"}));
    EXPECT_EQ(trace.said(), TraceLines());
  });
}

TEST(TokenLogin, AnotherTokenIsRefused) {
  for (const char* opened : {static_cast<const char*>(nullptr), "token"}) {
    for (const char* token : {"Token", "toke", "token2", ""}) {
      withinASecond([&](time_t now) {
        Sessions sessions;
        http_auth_session* const session = sessions.login("alice", opened);
        const Exchange exchange(cookieOf(session));
        session->lastActivity = now - 30;
        const TraceCapture trace;
        EXPECT_EQ(http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "alice",
                                                       token, &sessions, nullptr),
                  nullptr);
        EXPECT_EQ(trace.said(), TraceLines({"http-au[x]session is already authenticated with different token"}));
        EXPECT_EQ(session->lastActivity, now) << "it was a request of the session all the same";
        EXPECT_EQ(exchange.replied(), Lines());
        EXPECT_EQ(sessions.asked, Lines());
        EXPECT_EQ(sessions.users(), Lines({"alice"}));
      });
    }
  }
}

TEST(TokenLogin, WithoutTokenIsRefused) {
  withinASecond([](time_t now) {
    Sessions sessions;
    http_auth_session* const session = sessions.login("alice");
    for (const bool withSession : {false, true}) {
      const Exchange exchange(withSession ? cookieOf(session) : "");
      session->lastActivity = now - 30;
      const TraceCapture trace;
      EXPECT_EQ(http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "bob",
                                                     nullptr, &sessions, nullptr),
                nullptr);
      EXPECT_EQ(session->lastActivity, withSession ? now : now - 30);
      EXPECT_EQ(exchange.replied(), Lines());
      EXPECT_EQ(trace.said(), TraceLines());
    }
    EXPECT_EQ(sessions.asked, Lines());
    EXPECT_EQ(sessions.users(), Lines({"alice"}));
  });
}

TEST(TokenLogin, WithoutUserIsRefused) {
  Sessions sessions;
  const Exchange exchange;
  const TraceCapture quiet;
  EXPECT_EQ(http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), nullptr,
                                                 "token", &sessions, nullptr),
            nullptr);
  EXPECT_EQ(sessions.users(), Lines());
}

TEST(TokenLogin, AnEmptyTokenIsAToken) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("alice", "");
  ASSERT_NE(session, nullptr);
  EXPECT_STREQ(session->token, "");
  const Exchange exchange(cookieOf(session));
  EXPECT_EQ(http_authCookieAuthenticateWithToken(&sessions.context, exchange.request(), exchange.reply(), "alice", "",
                                                 &sessions, nullptr),
            session);
}

TEST(Login, ATokensSessionServesTheOtherLogins) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("alice", "token");
  const Exchange exchange(cookieOf(session), kTarget);
  EXPECT_EQ(logIn(kByUri, sessions, exchange), session);
  EXPECT_EQ(logIn(kByCredentials, sessions, exchange), session);
  EXPECT_EQ(sessions.asked, Lines());
}

// ---- endings -------------------------------------------------------------------------------------------------------

TEST(SessionClose, EndsTheRequestsOwn) {
  Sessions sessions;
  Data data;
  Data other;
  http_authSessionSetUserData(sessions.login("first"), &other, Data::release);
  http_auth_session* const session = sessions.login("second", "token");
  http_authSessionSetUserData(session, &data, Data::release);
  http_authSessionSetUserData(sessions.login("third"), &other, Data::release);
  const Exchange exchange(cookieOf(session));
  TraceCapture trace{"http-auth"};
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), 0);
  EXPECT_EQ(trace.said(), kRemoved);
  EXPECT_EQ(exchange.replied(), Lines({kTakenBack}));
  EXPECT_EQ(sessions.users(), Lines({"third", "first"}));
  EXPECT_EQ(data.released, 1);
  EXPECT_EQ(other.released, 0);
  EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), nullptr);
  EXPECT_EQ(data.released, 1);
}

TEST(SessionClose, AnExpiredOneToo) {
  Sessions sessions;
  http_auth_session* const session = sessions.login("user");
  session->lastActivity = 0;
  const Exchange exchange(cookieOf(session));
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), 0);
  EXPECT_EQ(sessions.users(), Lines());
  EXPECT_EQ(exchange.replied(), Lines({kTakenBack}));
}

TEST(SessionInvalidate, UnlinksEachPlaceOfTheList) {
  for (size_t at = 0; at < 4; ++at) {
    Sessions sessions;
    Data data;
    http_auth_session* session = nullptr;
    Lines expected;
    for (size_t made = 0; made < 4; ++made) {
      const std::string user = std::to_string(made);
      http_auth_session* const opened = sessions.login(user.c_str(), made % 2 == 0 ? "token" : nullptr);
      if (made == at) {
        session = opened;
        http_authSessionSetUserData(session, &data, Data::release);
      } else {
        expected.insert(expected.begin(), user);
      }
    }
    http_authCookieInvalidateSession(&sessions.context, session);
    EXPECT_EQ(sessions.users(), expected);
    EXPECT_EQ(data.released, 1);
  }
}

TEST(SessionInvalidate, IgnoresWhatIsNotInTheList) {
  Sessions sessions;
  Sessions others;
  Data data;
  sessions.login("user");
  http_auth_session* const foreign = others.login("foreign");
  http_authSessionSetUserData(foreign, &data, Data::release);
  http_auth_session loose = {};
  http_authCookieInvalidateSession(&sessions.context, foreign);
  http_authCookieInvalidateSession(&sessions.context, &loose);
  http_authCookieInvalidateSession(&sessions.context, nullptr);
  EXPECT_EQ(sessions.users(), Lines({"user"}));
  EXPECT_EQ(others.users(), Lines({"foreign"}));
  EXPECT_EQ(data.released, 0);
}

TEST(SessionCleanup, ReleasesEachOnce) {
  Data data[3];
  {
    Sessions sessions;
    http_authSessionSetUserData(sessions.login("a"), &data[0], Data::release);
    http_authSessionSetUserData(sessions.login("b", "token"), &data[1], Data::release);
    sessions.login("c", "token");
    http_authSessionSetUserData(sessions.login("d"), &data[2], Data::release);
    http_authCookieCleanup(&sessions.context);
    EXPECT_EQ(sessions.context.sessions, nullptr);
    for (const Data& each : data) EXPECT_EQ(each.released, 1);
    http_authCookieCleanup(&sessions.context);
    EXPECT_NE(sessions.login("e"), nullptr) << "the context can be used on";
  }
  for (const Data& each : data) EXPECT_EQ(each.released, 1);
}

// Both the data and the function must be there.
TEST(SessionRelease, NeedsDataAndFunction) {
  for (const bool invalidate : {false, true}) {
    Sessions sessions;
    Data data;
    http_auth_session* const withoutFunction = sessions.login("a");
    http_authSessionSetUserData(withoutFunction, &data, nullptr);
    http_auth_session* const withoutData = sessions.login("b");
    http_authSessionSetUserData(withoutData, nullptr, [](void*) { ADD_FAILURE() << "there is nothing to release"; });
    if (invalidate) {
      http_authCookieInvalidateSession(&sessions.context, withoutFunction);
      http_authCookieInvalidateSession(&sessions.context, withoutData);
    } else {
      http_authCookieCleanup(&sessions.context);
    }
    EXPECT_EQ(data.released, 0);
    EXPECT_EQ(sessions.users(), Lines());
  }
}

// A release function may call whatever it likes.
class SessionReleaseCalls : public testing::Test {
 protected:
  SessionReleaseCalls() {
    for (size_t at = 0; at < 3; ++at) {
      opened[at] = sessions.login(std::to_string(at).c_str(), at == 1 ? "token" : nullptr);
      cookies[at] = cookieOf(opened[at]);
      http_authSessionSetUserData(opened[at], &data[at], Data::release);
    }
  }
  Lines released() const {
    Lines released;
    for (const Data& each : data) released.push_back(std::to_string(each.released));
    return released;
  }

  Sessions sessions;
  Data data[3];
  http_auth_session* opened[3];
  std::string cookies[3];
};

TEST_F(SessionReleaseCalls, InvalidateItself) {
  data[1].whileReleasing = [this] { http_authCookieInvalidateSession(&sessions.context, opened[1]); };
  http_authCookieInvalidateSession(&sessions.context, opened[1]);
  EXPECT_EQ(released(), Lines({"0", "1", "0"}));
  EXPECT_EQ(sessions.users(), Lines({"2", "0"}));
}

TEST_F(SessionReleaseCalls, InvalidateAnOlderOne) {
  data[1].whileReleasing = [this] { http_authCookieInvalidateSession(&sessions.context, opened[0]); };
  http_authCookieInvalidateSession(&sessions.context, opened[1]);
  EXPECT_EQ(released(), Lines({"1", "1", "0"}));
  EXPECT_EQ(sessions.users(), Lines({"2"}));
}

TEST_F(SessionReleaseCalls, InvalidateANewerOne) {
  data[1].whileReleasing = [this] { http_authCookieInvalidateSession(&sessions.context, opened[2]); };
  http_authCookieInvalidateSession(&sessions.context, opened[1]);
  EXPECT_EQ(released(), Lines({"0", "1", "1"}));
  EXPECT_EQ(sessions.users(), Lines({"0"}));
}

TEST_F(SessionReleaseCalls, InvalidateEveryOtherInACircle) {
  for (size_t at = 0; at < 3; ++at) {
    data[at].whileReleasing = [this, at] { http_authCookieInvalidateSession(&sessions.context, opened[(at + 1) % 3]); };
  }
  http_authCookieInvalidateSession(&sessions.context, opened[0]);
  EXPECT_EQ(released(), Lines({"1", "1", "1"}));
  EXPECT_EQ(sessions.users(), Lines());
}

TEST_F(SessionReleaseCalls, CleanUp) {
  data[1].whileReleasing = [this] { http_authCookieCleanup(&sessions.context); };
  http_authCookieInvalidateSession(&sessions.context, opened[1]);
  EXPECT_EQ(released(), Lines({"1", "1", "1"}));
  EXPECT_EQ(sessions.users(), Lines());
}

TEST_F(SessionReleaseCalls, InvalidateWithinACleanup) {
  for (size_t at = 0; at < 3; ++at) {
    data[at].whileReleasing = [this] {
      for (http_auth_session* session : opened) http_authCookieInvalidateSession(&sessions.context, session);
    };
  }
  http_authCookieCleanup(&sessions.context);
  EXPECT_EQ(released(), Lines({"1", "1", "1"}));
  EXPECT_EQ(sessions.users(), Lines());
}

TEST_F(SessionReleaseCalls, CleanUpWithinACleanup) {
  for (Data& each : data) each.whileReleasing = [this] { http_authCookieCleanup(&sessions.context); };
  http_authCookieCleanup(&sessions.context);
  EXPECT_EQ(released(), Lines({"1", "1", "1"}));
  EXPECT_EQ(sessions.users(), Lines());
}

TEST_F(SessionReleaseCalls, CloseItsOwnRequestOnceMore) {
  const Exchange exchange(cookies[1]);
  data[1].whileReleasing = [&] {
    EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), 0);
  };
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, exchange.request(), exchange.reply()), 0);
  EXPECT_EQ(released(), Lines({"0", "1", "0"}));
  EXPECT_EQ(exchange.replied(), Lines({kTakenBack, kTakenBack}));
}

TEST_F(SessionReleaseCalls, LookTheSessionUp) {
  const Exchange exchange(cookies[2]);
  const Exchange again(cookies[2]);
  opened[2]->lastActivity = 0;
  data[2].whileReleasing = [&] {
    EXPECT_EQ(http_authCookieCheckSession(&sessions.context, again.request(), again.reply()), nullptr);
  };
  EXPECT_EQ(http_authCookieCheckSession(&sessions.context, exchange.request(), exchange.reply()), nullptr);
  EXPECT_EQ(released(), Lines({"0", "0", "1"}));
  EXPECT_EQ(sessions.users(), Lines({"1", "0"}));
}

TEST_F(SessionReleaseCalls, LogIn) {
  data[2].whileReleasing = [this] { sessions.login("again"); };
  http_authCookieInvalidateSession(&sessions.context, opened[2]);
  EXPECT_EQ(sessions.users(), Lines({"again", "1", "0"}));
}

// ---- from login to log-out -----------------------------------------------------------------------------------------

TEST(Session, TwoUsersFromLoginToLogout) {
  Sessions sessions;
  http_auth_session* const alice = sessions.login("alice");
  http_auth_session* const bob = sessions.login("bob");
  const std::string aliceCookie = cookieOf(alice);
  const std::string bobCookie = cookieOf(bob);
  EXPECT_NE(aliceCookie, bobCookie);
  EXPECT_EQ(sessions.find(aliceCookie), alice);
  EXPECT_EQ(sessions.find(bobCookie), bob);
  const Exchange logout(aliceCookie);
  EXPECT_EQ(http_authCookieCloseSession(&sessions.context, logout.request(), logout.reply()), 0);
  EXPECT_EQ(sessions.find(aliceCookie), nullptr);
  EXPECT_EQ(sessions.find(bobCookie), bob);
}

TEST(Session, TheCookieGoesOverTheWire) {
  Sessions sessions;
  MemoryOutput output;
  const Exchange login("", kTarget);
  http_replyModeSet(login.reply(), HTTP_MSG_WRITING);
  http_replyStreamSet(login.reply(), output.stream());
  http_replyVersionSet(login.reply(), 1, 1);
  ASSERT_EQ(http_replyStatusCodeSet(login.reply(), 200, nullptr), 0);
  http_auth_session* const session = logIn(kByUri, sessions, login);
  ASSERT_NE(session, nullptr);
  ASSERT_EQ(http_replySend(login.reply()), 0);
  EXPECT_EQ(output.text(), "HTTP/1.1 200 OK\r\nSet-Cookie: kro/sessid="s + session->id + "; path=/app\r\n\r\n");
}

TEST(Session, PasswordsAndIdsAreTracedInTheirZonesOnly) {
  const TraceCapture trace;
  Sessions sessions;
  const Exchange exchange("", "/?username=bob&password=TopSecret");
  const http_auth_session* const session = logIn(kByUri, sessions, exchange);
  ASSERT_NE(session, nullptr);
  sessions.result = -1;
  const Exchange refused("", "/?username=bob&password=TopSecret");
  EXPECT_EQ(logIn(kByUri, sessions, refused), nullptr);
  sessions.find(cookieOf(session));
  for (const TraceLine& line : trace.lines()) {
    EXPECT_EQ(line.text.find("TopSecret"), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find(session->id), std::string::npos) << line.text;
  }
}

// ---- random strings ------------------------------------------------------------------------------------------------

TEST(AuthRandomString, IsARandomStringOfTheUtilities) {
  std::unordered_set<std::string> seen;
  for (const unsigned length : {0U, 1U, 34U, 500U}) {
    const std::unique_ptr<char[]> buffer(new char[length + 1]);
    memset(buffer.get(), 'x', length + 1);
    EXPECT_EQ(http_authRandomString(buffer.get(), length), 0);
    EXPECT_EQ(strlen(buffer.get()), length);
    EXPECT_EQ(strspn(buffer.get(), "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ1234567890"), length);
  }
  for (int round = 0; round < 100; ++round) {
    char buffer[35];
    ASSERT_EQ(http_authRandomString(buffer, 34), 0);
    EXPECT_TRUE(seen.insert(buffer).second) << buffer;
  }
  const TraceCapture trace;
  EXPECT_EQ(http_authRandomString(nullptr, 4), -1);
  EXPECT_EQ(trace.said(), TraceLines({"http-ut[x]Invalid Parameters"}));
}

}  // namespace
