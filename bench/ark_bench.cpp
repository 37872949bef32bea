// The data ark beside what a program would use instead, and beside the limits. Each is asked for a domain and a
// key, and composes the key that it looks up. Usage: ark_bench ROUNDS ENTRIES...

#include <filesystem>
#include <fstream>
#include <lmdb.h>
#include <map>
#include <random>
#include <sqlite3.h>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/measure.h"
#include "daemon/log/cv_log.h"
#include "platform/linux/linux_device.h"
#include "platform/process/start_up.h"
#include "platform/system/system_platform.h"
#include "state/data_ark.h"
#include "tests/support/test_platform.h"

namespace corvane::bench {

namespace {

namespace fs = std::filesystem;
using plist::Ref;
using plist::String;

constexpr size_t domain_size = 100;
constexpr size_t samples = 10000;

/// Domains of 100 keys each, and the order in which they are asked for.
struct Keys {
  struct Key {
    Ref<String> domain;
    Ref<String> key;
    std::string composed;
  };

  explicit Keys(size_t count) {
    for (size_t i = 0; i < count; ++i) all.push_back(make(i));
    std::mt19937_64 random(1);
    for (size_t i = 0; i < samples; ++i) asked.push_back(&all[random() % count]);
  }

  static Key make(size_t i) {
    const std::string domain = "com.norvane.domain" + std::to_string(i / domain_size);
    const std::string key = "Key" + std::to_string(i % domain_size);
    return {String::create(domain), String::create(key), domain + "-" + key};
  }

  std::vector<Key> all;
  std::vector<const Key*> asked;
};

std::string value_text(size_t i) { return "value " + std::to_string(i); }

// ---- peers --------------------------------------------------------------------------------------------

class Sqlite {
 public:
  Sqlite(const std::string& path, const char* pragmas) {
    must(sqlite3_open(path.c_str(), &db_) == SQLITE_OK, "sqlite3_open");
    run(pragmas);
    run("CREATE TABLE ark(key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID");
    prepare("INSERT INTO ark VALUES(?1,?2) ON CONFLICT(key) DO UPDATE SET value=?2", &put_);
    prepare("SELECT value FROM ark WHERE key=?1", &get_);
    prepare("SELECT key,value FROM ark WHERE key>=?1 AND key<?2", &range_);
    prepare("SELECT key,value FROM ark", &all_);
  }
  ~Sqlite() {
    for (sqlite3_stmt* statement : {put_, get_, range_, all_}) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  void run(const char* sql) { must(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
  void put(const std::string& key, const std::string& value) {
    bind(put_, 1, key);
    bind(put_, 2, value);
    must(sqlite3_step(put_) == SQLITE_DONE, "put");
    sqlite3_reset(put_);
  }
  size_t get(const std::string& key) {
    bind(get_, 1, key);
    must(sqlite3_step(get_) == SQLITE_ROW, "get");
    const auto size = static_cast<size_t>(sqlite3_column_bytes(get_, 0));
    sqlite3_reset(get_);
    return size;
  }
  size_t range(const std::string& from, const std::string& to) {
    bind(range_, 1, from);
    bind(range_, 2, to);
    size_t count = 0;
    for (; sqlite3_step(range_) == SQLITE_ROW; ++count) sqlite3_column_text(range_, 1);
    sqlite3_reset(range_);
    return count;
  }
  std::unordered_map<std::string, std::string> load() {
    std::unordered_map<std::string, std::string> map;
    while (sqlite3_step(all_) == SQLITE_ROW) map.emplace(text(all_, 0), text(all_, 1));
    sqlite3_reset(all_);
    return map;
  }

 private:
  void prepare(const char* sql, sqlite3_stmt** statement) {
    must(sqlite3_prepare_v2(db_, sql, -1, statement, nullptr) == SQLITE_OK, sql);
  }
  static void bind(sqlite3_stmt* statement, int at, const std::string& text) {
    sqlite3_bind_text(statement, at, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  static std::string text(sqlite3_stmt* statement, int column) {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    return {bytes, static_cast<size_t>(sqlite3_column_bytes(statement, column))};
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt *put_ = nullptr, *get_ = nullptr, *range_ = nullptr, *all_ = nullptr;
};

class Lmdb {
 public:
  explicit Lmdb(const std::string& path) {
    must(mdb_env_create(&env_) == 0, "mdb_env_create");
    mdb_env_set_mapsize(env_, size_t{4} << 30);
    must(mdb_env_open(env_, path.c_str(), MDB_NOSYNC | MDB_NOSUBDIR, 0644) == 0, "mdb_env_open");
    begin(0);
    must(mdb_dbi_open(transaction_, nullptr, 0, &db_) == 0, "mdb_dbi_open");
    commit();
  }
  ~Lmdb() { mdb_env_close(env_); }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  void begin(unsigned flags) { must(mdb_txn_begin(env_, nullptr, flags, &transaction_) == 0, "mdb_txn_begin"); }
  void commit() { must(mdb_txn_commit(transaction_) == 0, "mdb_txn_commit"); }
  void put(const std::string& key, const std::string& value) {
    MDB_val k = val(key), v = val(value);
    must(mdb_put(transaction_, db_, &k, &v, 0) == 0, "mdb_put");
  }
  // Each in a transaction of its own, as in a program that asks now and then.
  size_t get(const std::string& key) {
    begin(MDB_RDONLY);
    MDB_val k = val(key), v{};
    must(mdb_get(transaction_, db_, &k, &v) == 0, "mdb_get");
    const std::string copy(static_cast<const char*>(v.mv_data), v.mv_size);
    mdb_txn_abort(transaction_);
    return copy.size();
  }
  size_t range(const std::string& prefix) {
    begin(MDB_RDONLY);
    MDB_cursor* cursor = nullptr;
    mdb_cursor_open(transaction_, db_, &cursor);
    std::map<std::string, std::string> copy;
    MDB_val k = val(prefix), v{};
    for (int rc = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE); rc == 0;
         rc = mdb_cursor_get(cursor, &k, &v, MDB_NEXT)) {
      const std::string_view key(static_cast<const char*>(k.mv_data), k.mv_size);
      if (!key.starts_with(prefix)) break;
      copy.emplace_hint(copy.end(), key.substr(prefix.size()),
                        std::string(static_cast<const char*>(v.mv_data), v.mv_size));
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(transaction_);
    return copy.size();
  }

 private:
  static MDB_val val(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }

  MDB_env* env_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi db_ = 0;
};

// ---- measuring ----------------------------------------------------------------------------------------

class Bench {
 public:
  Bench(const std::string& root, size_t count)
      : root_(root),
        ark_path_(root + "/private/var/mobile/Library/cvd/data_ark.plist"),
        keys_(count),
        wal_(root + "/wal.db", "PRAGMA journal_mode=WAL"),
        rollback_(root + "/rollback.db", "PRAGMA journal_mode=DELETE; PRAGMA synchronous=OFF"),
        lmdb_(root + "/lmdb") {
    fs::remove(ark_path_);
    ark_ = data_ark_load();
    map_.reserve(2 * count);
    // What the log costs is measured on its own; filling must not wait for a hundred thousand lines.
    transient_domains(true);
    fill();
    transient_domains(false);
  }

  void round() {
    gets();
    sets();
    new_keys();
    domains();
    files();
  }

 private:
  void transient_domains(bool transient) {
    for (size_t i = 0; i < keys_.all.size(); ++i) {
      const Keys::Key& key = keys_.all[i];
      const auto change = transient ? data_ark_set_attribute : data_ark_clear_attribute;
      change(ark_.get(), key.domain.get(), key.key.get(), 1);
    }
  }

  void fill() {
    wal_.run("BEGIN");
    rollback_.run("BEGIN");
    lmdb_.begin(0);
    for (size_t i = 0; i < keys_.all.size(); ++i) {
      const Keys::Key& key = keys_.all[i];
      const std::string text = value_text(i);
      set(key, text);
      map_[key.composed] = text;
      wal_.put(key.composed, text);
      rollback_.put(key.composed, text);
      lmdb_.put(key.composed, text);
    }
    wal_.run("COMMIT");
    rollback_.run("COMMIT");
    lmdb_.commit();
  }

  void set(const Keys::Key& key, const std::string& text) {
    data_ark_set(ark_.get(), key.domain.get(), key.key.get(), String::create(text).get());
  }

  template <class Operation>
  void each(const char* name, Operation operation) {
    add(name, time_of(samples, [&] {
          for (const Keys::Key* key : keys_.asked) operation(*key);
        }));
  }

  const std::string& composed(const Keys::Key& key) {
    composed_ = key.domain->view();
    composed_ += '-';
    composed_ += key.key->view();
    return composed_;
  }

  void gets() {
    each("get", [&](const Keys::Key& key) {
      sum_ += data_ark_copy(ark_.get(), key.domain.get(), key.key.get()) ? 1 : 0;
    });
    each("map get", [&](const Keys::Key& key) { sum_ += map_.find(composed(key))->second.size(); });
    each("LMDB get", [&](const Keys::Key& key) { sum_ += lmdb_.get(composed(key)); });
    each("SQLite WAL get", [&](const Keys::Key& key) { sum_ += wal_.get(composed(key)); });
    each("SQLite rollback get", [&](const Keys::Key& key) { sum_ += rollback_.get(composed(key)); });
  }

  void sets() {
    std::vector<Ref<String>> equal_values;
    for (const Keys::Key* key : keys_.asked) {
      const Ref<plist::Value> value = data_ark_copy(ark_.get(), key->domain.get(), key->key.get());
      equal_values.push_back(String::create(plist::cast<String>(value.get())->view()));
    }
    size_t next = 0;
    each("set equal", [&](const Keys::Key& key) {
      data_ark_set(ark_.get(), key.domain.get(), key.key.get(), equal_values[next++].get());
    });
    each("map update", [&](const Keys::Key& key) { map_[composed(key)] = "value 12345"; });

    const std::string texts[2] = {"changed a", "changed b"};
    for (const Keys::Key* key : keys_.asked)
      data_ark_set_attribute(ark_.get(), key->domain.get(), key->key.get(), 1);
    size_t turn = 0;
    each("set changed, attribute 1", [&](const Keys::Key& key) { set(key, texts[turn++ % 2]); });
    for (const Keys::Key* key : keys_.asked)
      data_ark_clear_attribute(ark_.get(), key->domain.get(), key->key.get(), 1);

    each("set dirtying", [&](const Keys::Key& key) { set(key, value_text(++turn)); });
    each("log line", [&](const Keys::Key& key) { cv_log("data_ark_set", 0, "dirtied by changing %@", key.key); });

    lmdb_.begin(0);
    each("LMDB put, one transaction", [&](const Keys::Key& key) { lmdb_.put(composed(key), "changed"); });
    lmdb_.commit();
    wal_.run("BEGIN");
    each("SQLite WAL put, one transaction", [&](const Keys::Key& key) { wal_.put(composed(key), "changed"); });
    wal_.run("COMMIT");
    rollback_.run("BEGIN");
    each("SQLite rollback put, one transaction",
         [&](const Keys::Key& key) { rollback_.put(composed(key), "changed"); });
    rollback_.run("COMMIT");
  }

  // Removed again afterwards, so that each round begins with the same ark.
  void new_keys() {
    std::vector<Keys::Key> fresh;
    for (size_t i = 0; i < samples; ++i) fresh.push_back(Keys::make(keys_.all.size() + i));
    const Ref<String> value = String::create("new");
    for (size_t i = 0; i < samples; i += domain_size) {
      data_ark_set_attribute(ark_.get(), fresh[i].domain.get(), nullptr, 1);
    }
    add("set new", time_of(samples, [&] {
          for (const auto& key : fresh) data_ark_set(ark_.get(), key.domain.get(), key.key.get(), value.get());
        }));
    add("map insert", time_of(samples, [&] {
          for (const auto& key : fresh) map_.emplace(composed(key), "new");
        }));
    for (const Keys::Key& key : fresh) {
      data_ark_remove(ark_.get(), key.domain.get(), key.key.get());
      map_.erase(key.composed);
    }
  }

  void domains() {
    const size_t count = 200;
    const auto each_domain = [&](const char* name, const std::function<size_t(const Keys::Key&)>& copy) {
      add(name, time_of(count, [&] {
            for (size_t i = 0; i < count; ++i) must(copy(*keys_.asked[i]) == domain_size, name);
          }));
    };
    data_ark_copy(ark_.get(), keys_.asked[0]->domain.get(), nullptr);  // builds the order index
    each_domain("domain copy", [&](const Keys::Key& key) {
      return plist::cast<plist::Dictionary>(data_ark_copy(ark_.get(), key.domain.get(), nullptr).get())->size();
    });
    const auto prefix = [](const Keys::Key& key) { return std::string(key.domain->view()) + "-"; };
    each_domain("LMDB scan", [&](const Keys::Key& key) { return lmdb_.range(prefix(key)); });
    each_domain("SQLite WAL range", [&](const Keys::Key& key) {
      return wal_.range(prefix(key), std::string(key.domain->view()) + ".");
    });
  }

  void files() {
    add("store", time_of(1, [&] { data_ark_store(ark_.get()); }));
    const std::string bytes = read_whole(ark_path_);
    add("write and rename", time_of(1, [&] {
          std::ofstream(root_ + "/copy.tmp", std::ios::binary) << bytes;
          fs::rename(root_ + "/copy.tmp", root_ + "/copy");
        }));
    add("load", time_of(1, [&] { must(data_ark_load() != nullptr, "load"); }));
    add("read", time_of(1, [&] { sum_ += read_whole(ark_path_).size(); }));
    add("SQLite WAL load into a map", time_of(1, [&] { sum_ += wal_.load().size(); }));
  }

  static std::string read_whole(const std::string& path) {
    std::string bytes(fs::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
  }

  void add(const char* name, double nanoseconds) {
    figure(std::to_string(keys_.all.size()), name, "ns", nanoseconds);
  }

  const std::string root_;
  const std::string ark_path_;
  const Keys keys_;
  Sqlite wal_;
  Sqlite rollback_;
  Lmdb lmdb_;
  DataArk ark_;
  std::unordered_map<std::string, std::string> map_;
  std::string composed_;
  size_t sum_ = 0;
};

int run(int argc, char** argv) {
  const std::string base = testing::make_temporary_folder();
  const std::string root = base + "/root";
  testing::make_image_folders(root);
  fs::create_directories(root + "/private/var/mobile/Library/cvd");
  Environment environment;
  environment.root = root;
  SystemPlatform platform(environment, std::make_unique<LinuxDevice>(root));
  install_platform(&platform);
  for (int i = 2; i < argc; ++i) {
    for (const char* file : {"/wal.db", "/wal.db-wal", "/wal.db-shm", "/rollback.db", "/lmdb", "/lmdb-lock"}) {
      fs::remove(root + file);
    }
    Bench bench(root, count_argument(argc, argv, i, 0));
    for (size_t round = count_argument(argc, argv, 1, 0); round > 0; --round) bench.round();
  }
  fs::remove_all(base);
  return 0;
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  corvane::set_memory_thresholds();
  return corvane::bench::run(argc, argv);
}
