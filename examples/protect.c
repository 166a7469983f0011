/* Three ways to know who asks: Basic for /basic/, Digest for /digest/, a form and a cookie for /session/.
 * What they are good for: SECURITY.md. Usage: protect [PORT] */
#include <krohttp/krohttp.h>
#include <stdlib.h>
#include <string.h>
#include <zel/connection.h>
#include <zel/loop.h>

#define REALM "protect"

/* Passwords are known by their hashes, as "krohttpd --add-user FILE USER protect" makes them. */
static const struct User {
  const char *name;
  const char *ha1;
} users[] = {{"alice", "3c6071a7430b3b6582763c86a8533112"}, /* wonderland */
             {"bob", "4687ace966158736b3dda2e477c7626c"}};  /* can fix it */

static http_auth_cookie sessions;

static const struct User *find_user(const char *name) {
  for (size_t i = 0; name != NULL && i < sizeof users / sizeof *users; i++)
    if (strcmp(users[i].name, name) == 0) return &users[i];
  return NULL;
}

/* For Basic and for sessions. Takes as long for any user, and for none. */
static int check_password(const char *name, const char *password, void *who) {
  const struct User *user = find_user(name);
  const char *known = user != NULL ? user->ha1 : users[0].ha1;
  char *given = http_generateDigestHash(name, REALM, password);
  unsigned difference = user == NULL;
  if (given == NULL) return -1; /* credentials that are none have no name */
  for (size_t i = 0; known[i] != '\0'; i++) difference |= (unsigned)(known[i] ^ given[i]);
  free(given);
  *(const struct User **)who = user;
  return difference == 0 ? 0 : -1;
}

static int find_ha1(const char *name, char **ha1, void *who) {
  const struct User *user = *(const struct User **)who = find_user(name);
  *ha1 = user != NULL ? strdup(user->ha1) : NULL;
  return *ha1 != NULL ? 0 : -1;
}

/* Digest credentials that were made for another target do not open this one. Of the two headers that may have them
 * this one is judged first. */
static bool is_made_for(HttpRequest *request) {
  const char *text = http_requestHeaderValue(request, "X-KRO-Authorization");
  HttpHeader header = {.code = HTTP_HEADER_AUTHORIZATION};
  HttpUri uri = {0};
  if (text == NULL) text = http_requestHeaderValue(request, "Authorization");
  const bool made = text != NULL && http_hdrFactory(&header, text) == 0 && header.authorization.uri != NULL &&
                    http_uriParse(&uri, header.authorization.uri) == 0 &&
                    strcmp(uri.path, http_requestPath(request)) == 0 &&
                    strcmp(uri.query, http_uriQueryString(http_requestURI(request))) == 0;
  http_hdrCleanup(&header);
  return made;
}

static int greet(HttpReply *reply, const char *name, const char *more) {
  if (http_replyHeaderValueSet(reply, "Cache-Control", "no-store") < 0) return -1;
  return http_replyWithDefaultAndBody(reply, 200, "<p>Hello, %s!</p>%s", name, more);
}

static int ask_for_password(HttpReply *reply) {
  return http_replyWithDefaultAndBody(reply, 403, "%s",
                                      "<form method=\"post\" action=\"/session/login\">"
                                      "<label>User <input name=\"username\" autocomplete=\"username\"></label> "
                                      "<label>Password <input name=\"password\" type=\"password\"></label> "
                                      "<button>Log in</button></form>");
}

/* A form that is being read, behind what makes it the query of a target. */
struct Form {
  size_t length;
  char text[1024];
};

static void drop_form(HttpRequest *request, HttpReply *reply) {
  (void)reply;
  free(http_requestUserData(request));
  http_requestUserDataSet(request, NULL);
}

static int expect_form(HttpRequest *request, HttpReply *reply) {
  struct Form *form;
  if (!http_requestHasBody(request) || http_requestBodyType(request) == HTTP_BODY_UNTIL_CLOSE)
    return ask_for_password(reply);
  form = calloc(1, sizeof *form);
  if (form == NULL) return -1;
  form->length = strlen(strcpy(form->text, "/?"));
  http_requestUserDataSet(request, form);
  return http_serverContinue(request, reply);
}

static int log_in(HttpRequest *request, HttpReply *reply, struct Form *form) {
  const struct User *user = NULL;
  http_auth_session *session = http_authCookieCheckSession(&sessions, request, reply);
  HttpUri fields;
  char name[64] = "";
  char *text;
  /* Whoever has opened it: from now on it is not this user's. */
  if (session != NULL) http_authCookieInvalidateSession(&sessions, session);
  for (char *c = form->text; (c = strchr(c, '+')) != NULL;) *c = ' ';
  http_uriParse(&fields, form->text);
  if (http_uriGetParameter(&fields, "username", &text) == 0) snprintf(name, sizeof name, "%s", text);
  if (http_uriGetParameter(&fields, "password", &text) < 0) return ask_for_password(reply);
  if (http_authCookieAuthenticateWithCredentials(&sessions, request, reply, name, text, &user) == NULL)
    return ask_for_password(reply);
  return http_replyWithRedirect(reply, 303, "/session/");
}

static int read_form(HttpRequest *request, HttpReply *reply, FILE *body) {
  struct Form *form = http_requestUserData(request);
  if (form == NULL) return -1; /* answered: nobody reads the rest */
  form->length += fread(form->text + form->length, 1, sizeof form->text - 1 - form->length, body);
  const bool fits = form->length < sizeof form->text - 1;
  if (fits && http_requestState(request) != HTTP_MSG_DONE) return 0;
  const int result = fits ? log_in(request, reply, form) : http_replyWithDefault(reply, 413);
  drop_form(request, reply);
  return result;
}

static int answer_session(HttpRequest *request, HttpReply *reply, const char *path) {
  const bool posted = http_requestMethod(request) == HTTP_METHOD_POST;
  http_auth_session *session;
  if (posted && strcmp(path, "/session/login") == 0) return expect_form(request, reply);
  if (posted && strcmp(path, "/session/logout") == 0) {
    http_authCookieCloseSession(&sessions, request, reply);
    return http_replyWithRedirect(reply, 303, "/session/");
  }
  session = http_authCookieCheckSession(&sessions, request, reply);
  if (session == NULL) return ask_for_password(reply);
  return greet(reply, http_authSessionUsername(session),
               "<form method=\"post\" action=\"/session/logout\"><button>Log out</button></form>");
}

static int answer(HttpRequest *request, HttpReply *reply) {
  const char *path = http_requestPath(request);
  const struct User *user = NULL;
  if (strncmp(path, "/basic/", 7) == 0)
    return http_requestAuthenticate(request, check_password, NULL, &user) == 0
               ? greet(reply, user->name, "")
               : http_replyWithAuthBasicFailed(reply, REALM);
  if (strncmp(path, "/digest/", 8) == 0)
    return is_made_for(request) && http_requestAuthenticate(request, NULL, find_ha1, &user) == 0
               ? greet(reply, user->name, "")
               : http_replyWithAuthDigestFailed(reply, REALM, "auth");
  if (strncmp(path, "/session/", 9) == 0) return answer_session(request, reply, path);
  return http_replyWithDefault(reply, 404);
}

int main(int argc, char **argv) {
  ZelConnection *connection = connection_create();
  HttpServer server = {.requestHandler = answer, .bodyHandler = read_form, .errorHandler = drop_form};
  http_authCookieInit(&sessions, "/session/; HttpOnly; SameSite=Lax", 600); /* the path is written last */
  sessions.check = check_password;
  server.peer = connection_listenOnTCP(connection, "127.0.0.1", argc > 1 ? argv[1] : "8080");
  if (server.peer == NULL || http_serverStart(&server) < 0) {
    perror("protect: cannot listen");
    return 1;
  }
  printf("listening on http://127.0.0.1:%u/\n", peer_localPort(server.peer));
  fflush(stdout);
  return zel_loop_run() < 0;
}
