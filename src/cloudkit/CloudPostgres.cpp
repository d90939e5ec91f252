// The cloud's SQL on a PostgreSQL server: one schema per user, owned by the
// user's role and reachable by no other, holding the tables the folder's
// SQLite file holds. Pushes are announced on the cloud's channel, a random
// name kept in the schema: any role may LISTEN on any name, so only one
// who can read the schema can hear the cloud. NOTIFY inside the writing
// transaction is sent at its commit, and not at all when it rolls back.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <pqxx/pqxx>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <thread>
#include <unordered_map>

#include "cloudkit/CloudSql.h"
#include "tarnwell/cloudkit/CloudEmulator.h"
#include "tarnwell/cloudkit/Errors.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {

namespace {

constexpr std::string_view kSslModes[] = {"disable", "allow", "prefer", "require", "verify-ca", "verify-full"};

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t index = 0; index < text.size(); ++index) {
    if (text[index] != '%') {
      out += text[index];
      continue;
    }
    int value = 0;
    if (index + 2 >= text.size()) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data() + index + 1, text.data() + index + 3, value, 16);
    if (error != std::errc() || end != text.data() + index + 3) return std::nullopt;
    out += static_cast<char>(value);
    index += 2;
  }
  return out;
}

// Everything but letters, digits and "-._~" escaped, and "/" too unless kept.
std::string percentEncoded(std::string_view text, bool keepSlash) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~' || (keepSlash && c == '/')) {
      out += c;
    } else {
      out += '%';
      out += kDigits[byte >> 4];
      out += kDigits[byte & 0xF];
    }
  }
  return out;
}

std::optional<CloudServer> refused(std::string* problem, std::string text) {
  if (problem) *problem = std::move(text);
  return std::nullopt;
}

}  // namespace

std::optional<CloudServer> CloudServer::parse(std::string_view url, std::string* problem) {
  std::string_view rest;
  for (const std::string_view scheme : {"postgresql://", "postgres://"}) {
    if (url.starts_with(scheme)) rest = url.substr(scheme.size());
  }
  if (rest.empty()) return refused(problem, "a server's URL starts with postgresql://");
  std::string_view query;
  if (const auto mark = rest.find('?'); mark != std::string_view::npos) {
    query = rest.substr(mark + 1);
    rest = rest.substr(0, mark);
  }
  const auto at = rest.find('@');
  const auto slash = rest.find('/');
  if (at == std::string_view::npos || slash == std::string_view::npos || at > slash) {
    return refused(problem, "a server's URL is postgresql://USER@HOST:PORT/DB");
  }
  CloudServer server;
  server.user = std::string(rest.substr(0, at));
  // A password in the URL would end up in shell histories and logs.
  if (server.user.find(':') != std::string::npos) {
    return refused(problem, "a password belongs in the keychain or PGPASSFILE, not in the URL");
  }
  if (server.user.empty()) return refused(problem, "a server's URL names its user: postgresql://USER@HOST:PORT/DB");
  std::string_view hostPort = rest.substr(at + 1, slash - at - 1);
  std::string_view host = hostPort;
  std::optional<std::string_view> port;
  if (hostPort.starts_with('[')) {
    const auto close = hostPort.find(']');
    if (close == std::string_view::npos) return refused(problem, "an IPv6 host is written in brackets: [::1]");
    host = hostPort.substr(1, close - 1);
    const std::string_view after = hostPort.substr(close + 1);
    if (!after.empty() && !after.starts_with(':')) return refused(problem, "a port follows the host after a colon");
    if (!after.empty()) port = after.substr(1);
  } else if (const auto colon = hostPort.rfind(':'); colon != std::string_view::npos) {
    host = hostPort.substr(0, colon);
    port = hostPort.substr(colon + 1);
  }
  if (port) {
    const auto [end, error] = std::from_chars(port->data(), port->data() + port->size(), server.port);
    if (error != std::errc() || end != port->data() + port->size() || server.port < 1 || server.port > 65535) {
      return refused(problem, "a port is a number from 1 to 65535");
    }
  }
  const auto decodedHost = percentDecoded(host);
  if (!decodedHost || decodedHost->empty()) return refused(problem, "a server's URL names its host");
  server.host = *decodedHost;
  server.database = std::string(rest.substr(slash + 1));
  if (server.database.empty() || server.database.find_first_of("/#") != std::string::npos) {
    return refused(problem, "a server's URL names one database after the host: postgresql://USER@HOST:PORT/DB");
  }

  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    const auto equals = pair.find('=');
    const std::string_view key = pair.substr(0, equals);
    const auto value = equals == std::string_view::npos ? std::nullopt : percentDecoded(pair.substr(equals + 1));
    if (key == "password") return refused(problem, "a password belongs in the keychain or PGPASSFILE, not in the URL");
    if (key != "sslmode" && key != "connect_timeout" && key != "sslrootcert") {
      return refused(problem, "the URL's option \"" + std::string(key) +
                                  "\" is not known (sslmode, connect_timeout and sslrootcert are)");
    }
    if (!value || value->empty()) return refused(problem, "the URL's option " + std::string(key) + " has no value");
    if (key == "sslmode") {
      if (!server.sslmode.empty()) return refused(problem, "the URL gives sslmode twice");
      if (std::find(std::begin(kSslModes), std::end(kSslModes), *value) == std::end(kSslModes)) {
        return refused(problem,
                       "sslmode \"" + *value + "\" is not disable, allow, prefer, require, verify-ca or verify-full");
      }
      server.sslmode = *value;
    } else if (key == "sslrootcert") {
      if (!server.sslrootcert.empty()) return refused(problem, "the URL gives sslrootcert twice");
      server.sslrootcert = *value;
    } else {
      if (server.connectTimeout) return refused(problem, "the URL gives connect_timeout twice");
      int seconds = 0;
      const auto [end, error] = std::from_chars(value->data(), value->data() + value->size(), seconds);
      // 0 would be libpq's "wait for ever".
      if (error != std::errc() || end != value->data() + value->size() || seconds < 1 || seconds > 300) {
        return refused(problem, "connect_timeout \"" + *value + "\" is not a number of seconds from 1 to 300");
      }
      server.connectTimeout = seconds;
    }
  }
  // Records and the password would cross the network in the clear.
  if (!server.onThisMachine() && (server.sslmode == "allow" || server.sslmode == "prefer")) {
    return refused(problem,
                   "a server on another machine needs TLS: sslmode=require, verify-ca or verify-full (or "
                   "sslmode=disable to send in the clear on purpose)");
  }
  return server;
}

std::string CloudServer::url() const {
  const std::string hostText =
      host.find(':') != std::string::npos ? "[" + host + "]" : percentEncoded(host, /*keepSlash=*/false);
  std::string text = "postgresql://" + user + "@" + hostText + ":" + std::to_string(port) + "/" + database;
  std::vector<std::string> options;
  if (!sslmode.empty()) options.push_back("sslmode=" + sslmode);
  if (connectTimeout) options.push_back("connect_timeout=" + std::to_string(*connectTimeout));
  if (!sslrootcert.empty()) options.push_back("sslrootcert=" + percentEncoded(sslrootcert, /*keepSlash=*/true));
  for (std::size_t index = 0; index < options.size(); ++index) text += (index == 0 ? "?" : "&") + options[index];
  return text;
}

bool CloudServer::onThisMachine() const {
  if (host == "localhost" || host.starts_with('/')) return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return ::inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string CloudServer::effectiveSslMode() const {
  if (!sslmode.empty()) return sslmode;
  return onThisMachine() ? "prefer" : "verify-full";
}

}  // namespace tarnwell

namespace tarnwell::cloudkit {
namespace {

constexpr std::string_view kServerSchema = R"sql(
CREATE TABLE cloud (identity TEXT NOT NULL);
CREATE TABLE channel (name TEXT NOT NULL);
CREATE TABLE settings (key TEXT PRIMARY KEY, value BIGINT NOT NULL);
CREATE TABLE devices (device TEXT PRIMARY KEY, status BIGINT NOT NULL);
CREATE TABLE databases (scope BIGINT PRIMARY KEY, sequence BIGINT NOT NULL);
CREATE TABLE zones (
  id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
  scope BIGINT NOT NULL,
  name TEXT NOT NULL,
  owner TEXT NOT NULL,
  state BIGINT NOT NULL,
  incarnation BIGINT NOT NULL,
  sequence BIGINT NOT NULL,
  changed BIGINT NOT NULL,
  UNIQUE (scope, name, owner));
CREATE INDEX zonesByChange ON zones (scope, changed);
CREATE TABLE records (
  zone BIGINT NOT NULL,
  name TEXT NOT NULL,
  type TEXT NOT NULL,
  sequence BIGINT NOT NULL,
  born BIGINT NOT NULL,
  deleted BIGINT NOT NULL,
  assets BIGINT NOT NULL,
  created DOUBLE PRECISION NOT NULL,
  modified DOUBLE PRECISION NOT NULL,
  fields BYTEA,
  PRIMARY KEY (zone, name));
CREATE UNIQUE INDEX recordsByChange ON records (zone, sequence);
CREATE INDEX recordsByType ON records (zone, type, born);
CREATE TABLE assets (id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY, bytes BYTEA NOT NULL);
CREATE TABLE subscriptions (scope BIGINT NOT NULL, id TEXT NOT NULL, body TEXT NOT NULL, PRIMARY KEY (scope, id));
CREATE TABLE pushes (
  id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
  device TEXT NOT NULL,
  scope BIGINT NOT NULL,
  subscription TEXT NOT NULL,
  userInfo TEXT NOT NULL,
  UNIQUE (device, scope, subscription));
CREATE TABLE longLived (
  id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
  device TEXT NOT NULL,
  operation TEXT NOT NULL,
  body BYTEA NOT NULL,
  UNIQUE (device, operation));
ALTER TABLE longLived ALTER COLUMN body SET STORAGE EXTERNAL;
CREATE TABLE faults (
  id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
  code BIGINT NOT NULL,
  retryAfter DOUBLE PRECISION,
  times BIGINT NOT NULL,
  kind TEXT);
CREATE TABLE requests (
  id BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY,
  device TEXT NOT NULL,
  kind TEXT NOT NULL,
  scope BIGINT NOT NULL,
  saves BIGINT NOT NULL,
  deletions BIGINT NOT NULL,
  error BIGINT NOT NULL);
)sql";

// How long a step of the cloud may wait on the server. A command waits for
// its cloud steps before it ends, so each is bounded: the connection, a
// statement, a lock held by another session (a writer of the same cloud
// holds one for milliseconds), and a transaction left idle by a client that
// stopped while holding the writers' lock.
constexpr int kConnectTimeoutSeconds = 5;
// How long steps fail at once after one ran out of time.
constexpr std::chrono::seconds kUnansweredPause{30};
constexpr std::string_view kSessionLimits =
    "-c statement_timeout=10s -c lock_timeout=3s -c idle_in_transaction_session_timeout=30s";

// libpq's keyword=value form, each value quoted.
std::string connectionString(const CloudServer& server) {
  const auto quoted = [](std::string_view value) {
    std::string out = "'";
    for (const char c : value) {
      if (c == '\'' || c == '\\') out += '\\';
      out += c;
    }
    return out + "'";
  };
  std::string text = "host=" + quoted(server.host) + " port=" + std::to_string(server.port) +
                     " dbname=" + quoted(server.database) + " user=" + quoted(server.user) +
                     " application_name=tarnwell sslmode=" + quoted(server.effectiveSslMode()) +
                     " connect_timeout=" + std::to_string(server.connectTimeout.value_or(kConnectTimeoutSeconds)) +
                     " options=" + quoted("-c plan_cache_mode=force_custom_plan " + std::string(kSessionLimits));
  if (!server.sslrootcert.empty()) text += " sslrootcert=" + quoted(server.sslrootcert);
  if (!server.password.empty()) text += " password=" + quoted(server.password);
  return text;
}

// The first line of what libpq said, which is the one that tells.
std::string firstLine(std::string_view message) {
  const auto end = message.find('\n');
  std::string line(message.substr(0, end));
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  return line;
}

// bytea's text form: "\x" and two hexadecimal digits a byte.
std::string hexBytes(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(2 + bytes.size() * 2, '\0');
  char* out = text.data();
  *out++ = '\\';
  *out++ = 'x';
  for (const unsigned char byte : bytes) {
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 0xF];
  }
  return text;
}

// The value of each hexadecimal digit, -1 for any other character.
constexpr std::array<signed char, 256> kHexValues = [] {
  std::array<signed char, 256> values{};
  values.fill(-1);
  for (int digit = 0; digit < 10; ++digit) values['0' + digit] = static_cast<signed char>(digit);
  for (int digit = 0; digit < 6; ++digit) {
    values['a' + digit] = static_cast<signed char>(10 + digit);
    values['A' + digit] = static_cast<signed char>(10 + digit);
  }
  return values;
}();

int hexDigit(char c) {
  const int value = kHexValues[static_cast<unsigned char>(c)];
  if (value < 0) throw std::runtime_error("The server sent bytes that are not hexadecimal");
  return value;
}

// lock_not_available, or query_canceled (which a statement timeout raises).
bool isTimeout(const pqxx::sql_error& error) { return error.sqlstate() == "55P03" || error.sqlstate() == "57014"; }

class PostgresRows final : public SqlRows {
 public:
  explicit PostgresRows(pqxx::result result) : result_(std::move(result)) {}

  bool next() override {
    ++row_;
    return row_ < static_cast<long>(result_.size());
  }
  bool isNull(int column) const override { return field(column).is_null(); }
  std::int64_t int64(int column) const override { return field(column).as<std::int64_t>(0); }
  double real(int column) const override { return field(column).as<double>(0); }
  std::string text(int column) const override {
    const pqxx::field value = field(column);
    return std::string(value.c_str(), value.size());
  }
  // bytea comes as "\x" and two hexadecimal digits a byte.
  std::string_view bytes(int column) const override {
    const pqxx::field value = field(column);
    const std::string_view hex(value.c_str(), value.size());
    if (!hex.starts_with("\\x")) return {};
    buffer_.resize((hex.size() - 2) / 2);
    for (std::size_t index = 0; index < buffer_.size(); ++index) {
      buffer_[index] = static_cast<char>(hexDigit(hex[2 + 2 * index]) << 4 | hexDigit(hex[3 + 2 * index]));
    }
    return buffer_;
  }

 private:
  pqxx::field field(int column) const {
    return result_[static_cast<pqxx::result::size_type>(row_)][static_cast<pqxx::row::size_type>(column)];
  }

  pqxx::result result_;
  // One before the first row until next().
  long row_ = -1;
  mutable std::string buffer_;
};

// Counts the notifications of one channel, for the waiting connection.
class Announcements final : public pqxx::notification_receiver {
 public:
  using pqxx::notification_receiver::notification_receiver;
  void operator()(const std::string&, int) override { ++heard; }
  int heard = 0;
};

// Notices ("schema already exists") are nobody's business on the standard error.
class QuietNotices final : public pqxx::errorhandler {
 public:
  using pqxx::errorhandler::errorhandler;
  bool operator()(const char*) noexcept override { return false; }
};

class PostgresSql final : public CloudSql {
 public:
  PostgresSql(const CloudServer& server, std::unique_ptr<pqxx::connection> connection, std::string channel)
      : connectionString_(connectionString(server)), schema_(server.schemaName()), channel_(std::move(channel)) {
    adopt(std::move(connection));
  }

  // Transactions are spoken on one long-lived channel rather than through
  // a transaction object each, so that beginning and locking cost the
  // server one round trip.
  void begin(Access access) override {
    refuseWhileUnanswered();
    run(access == Access::write
            // Writers of this cloud take turns; readers go on (see CloudSql.h).
            ? "BEGIN; LOCK TABLE databases IN EXCLUSIVE MODE"
            : "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY",
        {});
    inTransaction_ = true;
  }

  void commit() override {
    inTransaction_ = false;
    run("COMMIT", {});
  }

  void rollback() override {
    inTransaction_ = false;
    if (session_) run("ROLLBACK", {});
  }

  void execute(std::string_view sql, std::span<const SqlValue> parameters) override {
    if (!inTransaction_) refuseWhileUnanswered();
    run(sql, parameters);
  }

  std::unique_ptr<SqlRows> query(std::string_view sql, std::span<const SqlValue> parameters) override {
    if (!inTransaction_) refuseWhileUnanswered();
    return std::make_unique<PostgresRows>(run(sql, parameters));
  }

  void refreshStatistics() override { run("ANALYZE records", {}); }

  void announcePushes() override {
    const SqlValue channel = std::string_view(channel_);
    run("SELECT pg_notify($1, '')", std::span<const SqlValue>(&channel, 1));
  }

  bool waitForAnnouncement(std::chrono::milliseconds timeout) override {
    try {
      if (!listener_) {
        listener_ = std::make_unique<pqxx::connection>(connectionString_);
        announcements_ = std::make_unique<Announcements>(*listener_, channel_);
      }
      const long micros = static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(timeout).count());
      const int before = announcements_->heard;
      listener_->await_notification(micros / 1000000, micros % 1000000);
      return announcements_->heard != before;
    } catch (const std::exception& error) {
      // A listener that lost the server finds out nothing; the caller looks
      // anyway after the wait, and the next wait connects again.
      log.error(std::string("The cloud's push channel failed: ") + error.what());
      announcements_.reset();
      listener_.reset();
      std::this_thread::sleep_for(timeout);
      return true;
    }
  }

 private:
  // The connection and its channel, from `connection` on: the cloud's
  // schema first on the search path, its notices kept quiet.
  void adopt(std::unique_ptr<pqxx::connection> connection) {
    session_.reset();
    quiet_.reset();
    statements_.clear();
    connection_ = std::move(connection);
    quiet_ = std::make_unique<QuietNotices>(*connection_);
    session_ = std::make_unique<pqxx::nontransaction>(*connection_);
    session_->exec("SET search_path TO " + connection_->quote_name(schema_));
  }

  pqxx::result run(std::string_view sql, std::span<const SqlValue> parameters) {
    try {
      // A connection lost between two transactions is made again; one lost
      // within a transaction fails it, and the client retries.
      if (!session_) {
        if (inTransaction_) throw pqxx::broken_connection("The connection to the server was lost");
        adopt(std::make_unique<pqxx::connection>(connectionString_));
      }
      return exec(*session_, sql, parameters);
    } catch (const pqxx::broken_connection& error) {
      session_.reset();
      throw CKError(CKErrorCode::networkFailure, firstLine(error.what()));
    } catch (const pqxx::deadlock_detected& error) {
      throw CKError(CKErrorCode::serviceUnavailable, firstLine(error.what())).withRetryAfter(1.0);
    } catch (const pqxx::sql_error& error) {
      // A lock or a statement that ran out of time is a server that does not
      // answer: the client tries again at its next sync, not at once.
      if (!isTimeout(error)) throw;
      unansweredUntil_ = std::chrono::steady_clock::now() + kUnansweredPause;
      throw CKError(CKErrorCode::networkFailure, firstLine(error.what()));
    }
  }

  // After a step that ran out of time the next ones would most likely wait
  // as long, one after the other, and a launch runs several: for a while
  // they fail at once, as they would without a network.
  void refuseWhileUnanswered() const {
    if (std::chrono::steady_clock::now() < unansweredUntil_) {
      throw CKError(CKErrorCode::networkFailure, "The server did not answer in time a moment ago");
    }
  }

  pqxx::result exec(pqxx::transaction_base& transaction, std::string_view sql, std::span<const SqlValue> parameters) {
    if (parameters.empty()) return transaction.exec(std::string(sql));
    std::vector<std::string> texts;
    texts.reserve(parameters.size());
    std::vector<const char*> values;
    values.reserve(parameters.size());
    for (const SqlValue& parameter : parameters) {
      std::visit(
          [&](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::nullptr_t>) {
              values.push_back(nullptr);
              return;
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
              texts.push_back(std::to_string(value));
            } else if constexpr (std::is_same_v<T, double>) {
              // The shortest text that reads back as the same double.
              char buffer[32];
              const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
              texts.emplace_back(buffer, end);
            } else if constexpr (std::is_same_v<T, SqlBytes>) {
              texts.push_back(hexBytes(value.bytes));
            } else {
              texts.emplace_back(value);
            }
            values.push_back(texts.back().c_str());
          },
          parameter);
    }
    return transaction.exec_prepared(prepared(sql), pqxx::prepare::make_dynamic_params(values));
  }

  // The name the statement was prepared under on this connection.
  const std::string& prepared(std::string_view sql) {
    const auto found = statements_.find(sql);
    if (found != statements_.end()) return found->second;
    std::string name = "s" + std::to_string(statements_.size());
    connection_->prepare(name, std::string(sql));
    return statements_.emplace(std::string(sql), std::move(name)).first->second;
  }

  std::string connectionString_;
  std::string schema_;
  std::string channel_;
  std::unique_ptr<pqxx::connection> connection_;
  std::unique_ptr<QuietNotices> quiet_;
  std::unique_ptr<pqxx::nontransaction> session_;
  bool inTransaction_ = false;
  std::chrono::steady_clock::time_point unansweredUntil_;
  // Long statements (a batch's rows) are hashed once rather than compared
  // along their shared beginnings.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::unordered_map<std::string, std::string, TextHash, std::equal_to<>> statements_;
  std::unique_ptr<pqxx::connection> listener_;
  std::unique_ptr<Announcements> announcements_;
};

std::unique_ptr<pqxx::connection> connectTo(const CloudServer& server) {
  try {
    return std::make_unique<pqxx::connection>(connectionString(server));
  } catch (const std::exception& error) {
    throw CloudFolderError("Cannot reach the cloud at " + server.url() + ": " + firstLine(error.what()));
  }
}

// Everything in the schema that a role other than the one signed in owns
// or is granted a privilege on, the schema itself included: its first
// such object, the owner when that is someone else, and the role granted
// (PUBLIC for everybody). Without USAGE on the schema nobody reaches what
// it holds, yet an object owned by another role is theirs to read or drop,
// and a grant is a door left open: both are refused.
constexpr std::string_view kForeignObjects = R"sql(
WITH ns AS (SELECT oid, nspname, nspowner, nspacl FROM pg_catalog.pg_namespace WHERE nspname = $1::text),
objects AS (
  SELECT 'schema ' || quote_ident(nspname) AS what, nspowner AS owner, nspacl AS acl FROM ns
  UNION ALL
  SELECT CASE c.relkind WHEN 'S' THEN 'sequence ' WHEN 'i' THEN 'index ' WHEN 'v' THEN 'view '
                        WHEN 'm' THEN 'view ' ELSE 'table ' END || quote_ident(c.relname), c.relowner, c.relacl
    FROM pg_catalog.pg_class c JOIN ns ON c.relnamespace = ns.oid
  UNION ALL
  SELECT 'function ' || p.oid::pg_catalog.regprocedure::text, p.proowner, p.proacl
    FROM pg_catalog.pg_proc p JOIN ns ON p.pronamespace = ns.oid
  UNION ALL
  SELECT 'type ' || quote_ident(t.typname), t.typowner, t.typacl
    FROM pg_catalog.pg_type t JOIN ns ON t.typnamespace = ns.oid
  UNION ALL
  SELECT 'operator ' || o.oprname, o.oprowner, NULL FROM pg_catalog.pg_operator o JOIN ns ON o.oprnamespace = ns.oid
  UNION ALL
  SELECT 'collation ' || quote_ident(c.collname), c.collowner, NULL
    FROM pg_catalog.pg_collation c JOIN ns ON c.collnamespace = ns.oid
  UNION ALL
  SELECT 'conversion ' || quote_ident(c.conname), c.conowner, NULL
    FROM pg_catalog.pg_conversion c JOIN ns ON c.connamespace = ns.oid
  UNION ALL
  SELECT 'operator class ' || quote_ident(c.opcname), c.opcowner, NULL
    FROM pg_catalog.pg_opclass c JOIN ns ON c.opcnamespace = ns.oid
  UNION ALL
  SELECT 'operator family ' || quote_ident(f.opfname), f.opfowner, NULL
    FROM pg_catalog.pg_opfamily f JOIN ns ON f.opfnamespace = ns.oid
  UNION ALL
  SELECT 'text search configuration ' || quote_ident(c.cfgname), c.cfgowner, NULL
    FROM pg_catalog.pg_ts_config c JOIN ns ON c.cfgnamespace = ns.oid
  UNION ALL
  SELECT 'text search dictionary ' || quote_ident(d.dictname), d.dictowner, NULL
    FROM pg_catalog.pg_ts_dict d JOIN ns ON d.dictnamespace = ns.oid
  UNION ALL
  SELECT 'statistics object ' || quote_ident(x.stxname), x.stxowner, NULL
    FROM pg_catalog.pg_statistic_ext x JOIN ns ON x.stxnamespace = ns.oid),
me AS (SELECT oid FROM pg_catalog.pg_roles WHERE rolname = current_user)
(SELECT what, pg_catalog.pg_get_userbyid(owner), NULL FROM objects, me WHERE owner <> me.oid ORDER BY what LIMIT 1)
UNION ALL
(SELECT what, NULL, CASE a.grantee WHEN 0 THEN 'PUBLIC' ELSE pg_catalog.pg_get_userbyid(a.grantee) END
   FROM objects, pg_catalog.aclexplode(objects.acl) a WHERE a.grantee <> objects.owner ORDER BY what LIMIT 1)
)sql";

struct SchemaState {
  bool exists = false;
  bool holdsCloud = false;
  bool hasChannel = false;
};

// Where the user's schema stands; CloudFolderError, in a line, when it is
// not the user's alone.
SchemaState inspect(pqxx::transaction_base& look, const CloudServer& server) {
  const std::string schema = server.schemaName();
  const pqxx::result foreign = look.exec_params(std::string(kForeignObjects), schema);
  if (!foreign.empty()) {
    const std::string what = foreign[0][0].c_str();
    const std::string where = " at " + server.url() + " ";
    if (!foreign[0][1].is_null()) {
      throw CloudFolderError("Refused: the " + what + where + "belongs to the role " + foreign[0][1].c_str() +
                             ", not to " + server.user + "; a cloud is kept only in a schema its user owns");
    }
    throw CloudFolderError("Refused: the " + what + where + "grants privileges to " + foreign[0][2].c_str() +
                           "; a cloud is kept only in a schema no other role is granted anything in");
  }
  const pqxx::result found = look.exec_params(
      "SELECT to_regclass(quote_ident($1::text) || '.cloud') IS NOT NULL, "
      "to_regclass(quote_ident($1::text) || '.channel') IS NOT NULL "
      "FROM pg_catalog.pg_namespace WHERE nspname = $1::text",
      schema);
  if (found.empty()) return {};
  return {true, found[0][0].as<bool>(), found[0][1].as<bool>()};
}

// The privileges the user's default privileges gave other roles on what
// was just made in `schema`, taken back before the transaction commits.
void revokeDefaultGrants(pqxx::transaction_base& made, const std::string& schema) {
  const pqxx::result grantees = made.exec_params(
      "SELECT DISTINCT CASE a.grantee WHEN 0 THEN 'PUBLIC' ELSE quote_ident(pg_catalog.pg_get_userbyid(a.grantee)) END "
      "FROM (SELECT n.nspowner AS owner, n.nspacl AS acl FROM pg_catalog.pg_namespace n WHERE n.nspname = $1 "
      "      UNION ALL SELECT c.relowner, c.relacl FROM pg_catalog.pg_class c "
      "      JOIN pg_catalog.pg_namespace n ON c.relnamespace = n.oid WHERE n.nspname = $1) o, "
      "pg_catalog.aclexplode(o.acl) a WHERE a.grantee <> o.owner",
      schema);
  const std::string quoted = made.conn().quote_name(schema);
  for (const auto& row : grantees) {
    const std::string grantee = row[0].c_str();
    made.exec("REVOKE ALL ON SCHEMA " + quoted + " FROM " + grantee);
    made.exec("REVOKE ALL ON ALL TABLES IN SCHEMA " + quoted + " FROM " + grantee);
    made.exec("REVOKE ALL ON ALL SEQUENCES IN SCHEMA " + quoted + " FROM " + grantee);
  }
}

// A name nobody can guess: a random UUID's 122 bits, within the 63
// characters a channel's name may have.
std::string newChannelName() {
  std::string id = makeUUIDString();
  std::erase(id, '-');
  std::transform(id.begin(), id.end(), id.begin(), [](unsigned char c) { return std::tolower(c); });
  return "tarnwell_" + id;
}

// The channel of a cloud made before clouds had one, made once: the
// writers' lock keeps two devices from making it at once.
void addChannel(pqxx::connection& connection, const std::string& quotedSchema) {
  pqxx::work made(connection);
  made.exec("SET LOCAL search_path TO " + quotedSchema);
  made.exec("LOCK TABLE databases IN EXCLUSIVE MODE");
  made.exec("CREATE TABLE IF NOT EXISTS channel (name TEXT NOT NULL)");
  made.exec_params("INSERT INTO channel (name) SELECT $1 WHERE NOT EXISTS (SELECT 1 FROM channel)", newChannelName());
  made.commit();
}

}  // namespace

bool serverHoldsCloud(const CloudServer& server) {
  auto connection = connectTo(server);
  try {
    pqxx::read_transaction look(*connection);
    return inspect(look, server).holdsCloud;
  } catch (const pqxx::sql_error& error) {
    throw CloudFolderError("Cannot use the cloud at " + server.url() + ": " + firstLine(error.what()));
  } catch (const pqxx::broken_connection& error) {
    throw CloudFolderError("Cannot reach the cloud at " + server.url() + ": " + firstLine(error.what()));
  }
}

OpenedCloud openServerCloud(const CloudServer& server, bool create) {
  auto connection = connectTo(server);
  const std::string schema = server.schemaName();
  const std::string where = "the cloud of " + schema + " at " + server.url();
  try {
    QuietNotices quiet(*connection);
    const std::string quotedSchema = connection->quote_name(schema);
    SchemaState state;
    {
      pqxx::read_transaction look(*connection);
      state = inspect(look, server);
    }
    if (!state.holdsCloud) {
      if (!create) throw CloudFolderError("There is no cloud of " + schema + " at " + server.url());
      // The schema is the user's alone: made for the user (an admin may have
      // made it for them, empty), nothing in it granted to anybody, and
      // looked at again before the commit, in case another role made one of
      // that name meanwhile.
      pqxx::work made(*connection);
      if (!state.exists) made.exec("CREATE SCHEMA " + quotedSchema + " AUTHORIZATION CURRENT_USER");
      made.exec("SET LOCAL search_path TO " + quotedSchema);
      made.exec(std::string(kServerSchema));
      made.exec(std::string(kCloudSeedRows));
      made.exec_params("INSERT INTO cloud (identity) VALUES ($1)", makeUUIDString());
      made.exec_params("INSERT INTO channel (name) VALUES ($1)", newChannelName());
      revokeDefaultGrants(made, schema);
      inspect(made, server);
      made.commit();
    } else if (!state.hasChannel) {
      addChannel(*connection, quotedSchema);
    }
    std::string identity, channel;
    {
      pqxx::read_transaction look(*connection);
      const pqxx::result found = look.exec("SELECT identity FROM " + quotedSchema + ".cloud");
      if (found.empty()) throw CloudFolderError(where + " is damaged: it has no identity");
      identity = found[0][0].c_str();
      const pqxx::result named = look.exec("SELECT name FROM " + quotedSchema + ".channel");
      if (named.empty()) throw CloudFolderError(where + " is damaged: it has no channel");
      channel = named[0][0].c_str();
    }
    return {std::make_unique<PostgresSql>(server, std::move(connection), std::move(channel)), std::move(identity)};
  } catch (const pqxx::sql_error& error) {
    throw CloudFolderError("Cannot use " + where + ": " + firstLine(error.what()));
  } catch (const pqxx::broken_connection& error) {
    throw CloudFolderError("Cannot reach the cloud at " + server.url() + ": " + firstLine(error.what()));
  }
}

}  // namespace tarnwell::cloudkit
