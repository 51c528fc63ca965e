// depottrie for Python: a route table of RouteTable/RouteTable.h opened by
// name, read or written from Python in the same shared tables as C++
// processes.
//
// Prefixes come in as str or as the standard library's ipaddress objects
// (addresses, networks, interfaces: an interface stands for its network),
// and go out as str (the default) or ipaddress networks, as chosen at open.
// Bad text and reserved prefixes raise ValueError, objects of other types
// TypeError, and table problems depottrie.Error (an OSError).
//
// Every call into the table runs without the GIL: the table locks itself per
// call, so one object serves several Python threads. A call holds its own
// reference to the table, so close() from another thread takes effect when
// the calls under way return.
#include <pybind11/pybind11.h>
#include <structmember.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "RouteTable/RouteTable.h"

namespace py = pybind11;
using depottrie::Family;
using depottrie::Prefix;
using depottrie::Route;

namespace {

// Objects that live as long as the interpreter: found or made once at import.
struct Globals {
  PyObject* v4Address;
  PyObject* v6Address;
  PyObject* v4Network;
  PyObject* v6Network;
  PyObject* v4Interface;
  PyObject* v6Interface;
  PyObject* packed;  // interned attribute names
  PyObject* prefixlen;
  PyObject* networkAddress;
  PyObject* network;
  PyTypeObject* route;
  bool plainRoute;  // Route has exactly its two visible fields (see routeObject)
  PyObject* error;
};
Globals g;

py::object steal(PyObject* o) {
  if (!o) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(o);
}

bool isInstance(PyObject* o, PyObject* type) {
  const int r = PyObject_IsInstance(o, type);
  if (r < 0) throw py::error_already_set();
  return r == 1;
}

// ---------------------------------------------------------------------------
// Python objects to prefixes.

Prefix fromText(PyObject* text) {
  Py_ssize_t n = 0;
  const char* s = PyUnicode_AsUTF8AndSize(text, &n);
  if (!s) throw py::error_already_set();
  try {
    return Prefix(std::string_view(s, size_t(n)));
  } catch (const depottrie::Error& e) {
    throw py::value_error(e.what());
  }
}

// The `packed` bytes of an ipaddress address, cut to `length` (or its full length).
Prefix fromPacked(PyObject* address, int length) {
  const py::object packed = steal(PyObject_GetAttr(address, g.packed));
  if (!PyBytes_Check(packed.ptr())) throw py::type_error("an address's packed form is not bytes");
  const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(PyBytes_AS_STRING(packed.ptr())),
                                            size_t(PyBytes_GET_SIZE(packed.ptr())));
  try {
    return Prefix::fromBytes(bytes, length < 0 ? unsigned(bytes.size() * 8) : unsigned(length));
  } catch (const depottrie::Error& e) {
    throw py::value_error(e.what());
  }
}

Prefix fromNetwork(PyObject* network) {
  const py::object address = steal(PyObject_GetAttr(network, g.networkAddress));
  const py::object length = steal(PyObject_GetAttr(network, g.prefixlen));
  const long n = PyLong_AsLong(length.ptr());
  if (n == -1 && PyErr_Occurred()) throw py::error_already_set();
  if (n < 0) throw py::value_error("a network's prefixlen is negative");
  return fromPacked(address.ptr(), int(n));
}

// The prefix an object names, or nullopt for an object of another type.
std::optional<Prefix> prefixOf(PyObject* o) {
  if (PyUnicode_Check(o)) return fromText(o);
  PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(o));
  if (type == g.v4Address || type == g.v6Address) return fromPacked(o, -1);
  if (type == g.v4Network || type == g.v6Network) return fromNetwork(o);
  // Subclasses; an interface is an address subclass, so it is asked first.
  if (isInstance(o, g.v4Interface) || isInstance(o, g.v6Interface))
    return fromNetwork(steal(PyObject_GetAttr(o, g.network)).ptr());
  if (isInstance(o, g.v4Network) || isInstance(o, g.v6Network)) return fromNetwork(o);
  if (isInstance(o, g.v4Address) || isInstance(o, g.v6Address)) return fromPacked(o, -1);
  return std::nullopt;
}

[[noreturn]] void wrongType(PyObject* o) {
  throw py::type_error(std::string("expected an address or prefix (str, or an ipaddress address, network or "
                                   "interface), not ") +
                       Py_TYPE(o)->tp_name);
}

Prefix toPrefix(py::handle o) {
  if (std::optional<Prefix> p = prefixOf(o.ptr())) return *p;
  wrongType(o.ptr());
}

// ---------------------------------------------------------------------------
// Routes to Python objects.

enum class Output { str, ipaddress };

// "10.0.0.0/8": IPv4 written here (the common case, and a lookup's largest
// cost after the lookup itself); IPv6 as the library prints it.
PyObject* prefixText(const Prefix& p) {
  if (p.family() == Family::ipv6) {
    const std::string s = p.toString();
    return PyUnicode_FromStringAndSize(s.data(), Py_ssize_t(s.size()));
  }
  char buf[20];
  char* out = buf;
  auto number = [&](unsigned v) {
    if (v >= 100) *out++ = char('0' + v / 100);
    if (v >= 10) *out++ = char('0' + v / 10 % 10);
    *out++ = char('0' + v % 10);
  };
  const auto a = p.address();
  for (int i = 0; i < 4; ++i) {
    number(a[i]);
    *out++ = i < 3 ? '.' : '/';
  }
  number(p.length());
  // ASCII: the str is made with its bytes, not decoded from UTF-8.
  PyObject* text = PyUnicode_New(out - buf, 127);
  if (text) std::memcpy(PyUnicode_1BYTE_DATA(text), buf, size_t(out - buf));
  return text;
}

// ipaddress.IPv4Network((int, length)) or the IPv6 one: the constructor's
// quickest form.
PyObject* prefixNetwork(const Prefix& p) {
  const auto a = p.address();
  py::object address;
  if (p.family() == Family::ipv4) {
    address = steal(PyLong_FromUnsignedLong(std::uint32_t(a[0]) << 24 | std::uint32_t(a[1]) << 16 |
                                            std::uint32_t(a[2]) << 8 | a[3]));
  } else {
    std::uint64_t half[2] = {0, 0};
    for (int i = 0; i < 16; ++i) half[i / 8] = half[i / 8] << 8 | a[i];
    const py::object high = steal(PyLong_FromUnsignedLongLong(half[0]));
    const py::object shift = steal(PyLong_FromLong(64));
    const py::object shifted = steal(PyNumber_Lshift(high.ptr(), shift.ptr()));
    const py::object low = steal(PyLong_FromUnsignedLongLong(half[1]));
    address = steal(PyNumber_Or(shifted.ptr(), low.ptr()));
  }
  const py::object args = steal(Py_BuildValue("((OI))", address.ptr(), p.length()));
  return PyObject_Call(p.family() == Family::ipv4 ? g.v4Network : g.v6Network, args.ptr(), nullptr);
}

// A depottrie.Route (prefix, value): a named tuple.
PyObject* routeObject(const Route& r, Output out) {
  py::object prefix = steal(out == Output::str ? prefixText(r.prefix) : prefixNetwork(r.prefix));
  py::object value = steal(PyLong_FromUnsignedLongLong(r.value));
  // PyStructSequence_New looks its type's field counts up in the type's
  // dict, twice per object: about 6 % of a list lookup's time.
  // A Route has two fields, both visible, so it is allocated as such.
  PyObject* route = g.plainRoute ? reinterpret_cast<PyObject*>(PyObject_GC_NewVar(PyTupleObject, g.route, 2))
                                 : PyStructSequence_New(g.route);
  if (!route) throw py::error_already_set();
  PyStructSequence_SET_ITEM(route, 0, prefix.release().ptr());
  PyStructSequence_SET_ITEM(route, 1, value.release().ptr());
  return route;
}

py::object toPython(const std::optional<Route>& r, Output out) {
  return r ? steal(routeObject(*r, out)) : py::none();
}

py::object toPython(const std::vector<Route>& routes, Output out) {
  py::list list = steal(PyList_New(Py_ssize_t(routes.size())));
  for (size_t i = 0; i < routes.size(); ++i) PyList_SET_ITEM(list.ptr(), Py_ssize_t(i), routeObject(routes[i], out));
  return list;
}

// ---------------------------------------------------------------------------
// The table object.

struct Options {
  depottrie::Options options;
  Output output = Output::str;
};

std::string pathText(const py::object& root) {
  if (root.is_none()) return {};
  const py::object path = steal(PyOS_FSPath(root.ptr()));
  if (!PyUnicode_Check(path.ptr())) throw py::type_error("root must be a str or os.PathLike of str");
  return path.cast<std::string>();
}

Options options(const py::object& root, unsigned mode, std::uint64_t ipv4Capacity, std::uint64_t ipv6Capacity,
                const std::string& prefixes) {
  Options o;
  o.options = {.root = pathText(root), .mode = mode, .ipv4Capacity = ipv4Capacity, .ipv6Capacity = ipv6Capacity};
  if (prefixes == "ipaddress") o.output = Output::ipaddress;
  else if (prefixes != "str") throw py::value_error("prefixes must be \"str\" or \"ipaddress\", not \"" + prefixes + "\"");
  return o;
}

class Table {
 public:
  Table(depottrie::RouteTable table, Output output)
      : table_(std::make_shared<depottrie::RouteTable>(std::move(table))), output_(output) {
    name_ = table_->name();
  }

  // The table for one call, or ValueError once closed.
  std::shared_ptr<depottrie::RouteTable> use() const {
    std::shared_ptr<depottrie::RouteTable> t = table_;
    if (!t) throw py::value_error("route table " + name_ + " is closed");
    return t;
  }
  void close() { table_.reset(); }
  bool closed() const { return !table_; }
  Output output() const { return output_; }
  const std::string& name() const { return name_; }

  // One lookup, or a list of them for an iterable.
  py::object lookup(py::handle what) const {
    std::optional<Prefix> p = prefixOf(what.ptr());
    if (!p) return lookupMany(what);
    const auto t = use();
    std::optional<Route> r;
    {
      py::gil_scoped_release unlocked;
      r = t->lookup(*p);
    }
    return toPython(r, output_);
  }

  // The queries are converted with the GIL, looked up in one batched call
  // without it, and the answers built with it again.
  py::list lookupMany(py::handle what) const {
    PyObject* o = what.ptr();
    if (PyBytes_Check(o) || PyByteArray_Check(o) || (!Py_TYPE(o)->tp_iter && !PySequence_Check(o))) wrongType(o);
    const py::object items = steal(PySequence_Fast(o, "lookup needs an iterable"));
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(items.ptr());
    PyObject** item = PySequence_Fast_ITEMS(items.ptr());
    std::vector<Prefix> queries(static_cast<size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
      // Errors name the item.
      try {
        queries[size_t(i)] = toPrefix(item[i]);
      } catch (const py::value_error& e) {
        throw py::value_error("item " + std::to_string(i) + ": " + e.what());
      } catch (const py::type_error& e) {
        throw py::type_error("item " + std::to_string(i) + ": " + e.what());
      }
    }
    std::vector<std::optional<Route>> answers(queries.size());
    const auto t = use();
    {
      py::gil_scoped_release unlocked;
      t->lookup(queries, answers);
    }
    py::list out = steal(PyList_New(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
      const std::optional<Route>& r = answers[size_t(i)];
      PyObject* o = r ? routeObject(*r, output_) : Py_NewRef(Py_None);
      PyList_SET_ITEM(out.ptr(), i, o);
    }
    return out;
  }

 private:
  std::shared_ptr<depottrie::RouteTable> table_;
  Output output_;
  std::string name_;
};

// Iteration in order, a `next` per step (RouteTable::Iterator).
class RouteIterator {
 public:
  explicit RouteIterator(py::object owner) : owner_(std::move(owner)) {}
  py::object next() {
    const Table& table = owner_.cast<const Table&>();
    const auto t = table.use();
    std::optional<Route> route;
    {
      py::gil_scoped_release unlocked;
      const std::lock_guard step(*step_);  // one step at a time, whichever threads share the iterator
      if (!held_) {
        held_ = t;
        it_ = t->begin();
      } else if (it_ != t->end()) {
        ++it_;
      }
      if (it_ != t->end()) route = *it_;
    }
    if (!route) throw py::stop_iteration();
    return steal(routeObject(*route, table.output()));
  }

 private:
  py::object owner_;
  std::shared_ptr<const depottrie::RouteTable> held_;  // the table it_ walks
  depottrie::RouteTable::Iterator it_;
  std::unique_ptr<std::mutex> step_ = std::make_unique<std::mutex>();
};

template <class F>
auto unlocked(F&& f) {
  py::gil_scoped_release released;
  return f();
}

// A read about one prefix: converted with the GIL, run without it, its
// answer built with it again.
template <class Read>
py::object readOne(const Table& t, py::handle prefix, Read read) {
  const Prefix q = toPrefix(prefix);
  const auto table = t.use();
  return toPython(unlocked([&] { return read(*table, q); }), t.output());
}

void initGlobals(py::module_& m) {
  const py::module_ ipaddress = py::module_::import("ipaddress");
  auto type = [&](const char* name) { return py::object(ipaddress.attr(name)).release().ptr(); };
  g.v4Address = type("IPv4Address");
  g.v6Address = type("IPv6Address");
  g.v4Network = type("IPv4Network");
  g.v6Network = type("IPv6Network");
  g.v4Interface = type("IPv4Interface");
  g.v6Interface = type("IPv6Interface");
  g.packed = PyUnicode_InternFromString("packed");
  g.prefixlen = PyUnicode_InternFromString("prefixlen");
  g.networkAddress = PyUnicode_InternFromString("network_address");
  g.network = PyUnicode_InternFromString("network");

  static PyStructSequence_Field fields[] = {{"prefix", "the stored prefix (str or ipaddress network)"},
                                           {"value", "its 64-bit value"},
                                           {nullptr, nullptr}};
  static PyStructSequence_Desc desc = {"depottrie.Route", "A stored prefix and its value.", fields, 2};
  g.route = PyStructSequence_NewType(&desc);
  if (!g.route) throw py::error_already_set();
  {
    const py::handle type(reinterpret_cast<PyObject*>(g.route));
    g.plainRoute = type.attr("n_fields").cast<int>() == 2 && type.attr("n_sequence_fields").cast<int>() == 2 &&
                   type.attr("n_unnamed_fields").cast<int>() == 0;
  }
  m.attr("Route") = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(g.route));

  g.error = PyErr_NewExceptionWithDoc("depottrie.Error",
                                      "A route table that cannot be opened, read or written: no such table, a "
                                      "second writer, a change asked of a reader, a damaged file.",
                                      PyExc_OSError, nullptr);
  if (!g.error) throw py::error_already_set();
  m.attr("Error") = py::reinterpret_borrow<py::object>(g.error);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const depottrie::Error& e) {
      PyErr_SetString(g.error, e.what());
    }
  });
}

}  // namespace

PYBIND11_MODULE(depottrie, m) {
  m.doc() =
      "DepotTrie route tables: IPv4 and IPv6 prefixes with a 64-bit value each, in shared memory, written by one "
      "process and read in place by any number.";
  initGlobals(m);

  const auto kw = [](const char* name) { return py::arg(name); };
  const char* prefixesDoc = "prefixes=\"str\" (the default) returns prefixes as text, \"ipaddress\" as "
                            "ipaddress.IPv4Network / IPv6Network objects.";

  py::class_<Table> table(m, "RouteTable", "A route table opened with open_reader or open_writer.");
  table
      .def_property_readonly("name", &Table::name)
      .def_property_readonly("is_writer", [](const Table& t) { return t.use()->isWriter(); })
      .def_property_readonly("closed", &Table::closed)
      .def("lookup", &Table::lookup, kw("address"),
           "The longest stored prefix covering an address or prefix, as Route(prefix, value), or None. Given a "
           "list or other iterable of them, a list of the same, looked up together (several times faster).")
      .def(
          "find", [](const Table& t, py::handle p) { return readOne(t, p, [](auto& r, auto& q) { return r.find(q); }); },
          kw("prefix"), "The route stored under exactly this prefix, or None.")
      .def(
          "covering", [](const Table& t, py::handle p) { return readOne(t, p, [](auto& r, auto& q) { return r.covering(q); }); },
          kw("prefix"), "Every stored route covering the prefix (itself included), longest first.")
      .def(
          "covered", [](const Table& t, py::handle p) { return readOne(t, p, [](auto& r, auto& q) { return r.covered(q); }); },
          kw("prefix"), "Every stored route inside the prefix (itself included), in order.")
      .def(
          "next", [](const Table& t, py::handle p) { return readOne(t, p, [](auto& r, auto& q) { return r.next(q); }); },
          kw("prefix"), "The first stored route of the same family after the prefix in order, or None.")
      .def(
          "insert",
          [](const Table& t, py::handle p, py::handle value) {
            const Prefix q = toPrefix(p);
            if (!PyLong_Check(value.ptr()))
              throw py::type_error(std::string("value must be an int, not ") + Py_TYPE(value.ptr())->tp_name);
            const unsigned long long v = PyLong_AsUnsignedLongLong(value.ptr());
            if (v == static_cast<unsigned long long>(-1) && PyErr_Occurred()) {
              PyErr_Clear();
              throw py::value_error("value must be an int from 0 to 2**64 - 1");
            }
            const auto table = t.use();
            if (depottrie::RouteTable::reserved(q)) {
              // Refused before anything else: bad input, with the library's message.
              try {
                table->insert(q, v);
              } catch (const depottrie::Error& e) {
                throw py::value_error(e.what());
              }
            }
            return unlocked([&] { return table->insert(q, v); });
          },
          kw("prefix"), py::arg("value") = 0,
          "Stores the prefix with its value (0 unless given), or gives a stored prefix the new value; True when "
          "the prefix was new. Writer only.")
      .def(
          "erase",
          [](const Table& t, py::handle p) {
            const Prefix q = toPrefix(p);
            const auto table = t.use();
            return unlocked([&] { return table->erase(q); });
          },
          kw("prefix"), "Removes the prefix; False when it was not stored. Writer only.")
      .def("__len__", [](const Table& t) {
        const auto table = t.use();
        return unlocked([&] { return table->size(); });
      })
      .def("__iter__", [](py::object self) { return RouteIterator(self); })
      .def(
          "stats",
          [](const Table& t) {
            const auto table = t.use();
            const depottrie::Statistics s = unlocked([&] { return table->statistics(); });
            py::dict d;
            d["ipv4_prefixes"] = s.ipv4Prefixes;
            d["ipv6_prefixes"] = s.ipv6Prefixes;
            d["ipv4_nodes"] = s.ipv4Nodes;
            d["ipv6_nodes"] = s.ipv6Nodes;
            d["updates"] = s.updates;
            d["shared_bytes"] = s.sharedBytes;
            return d;
          },
          "A dict: ipv4_prefixes, ipv6_prefixes, ipv4_nodes and ipv6_nodes (trie node records), updates (changes "
          "since the table was made), shared_bytes (shared memory its tables hold).")
      .def("close", &Table::close,
           "Releases the tables (a writer gives up its lock); calling it again does nothing. Any other call "
           "afterwards raises ValueError.")
      .def("__enter__", [](py::object self) {
        self.cast<const Table&>().use();
        return self;
      })
      .def("__exit__", [](Table& t, py::args) {
        t.close();
        return false;
      })
      .def("__repr__", [](const Table& t) {
        const char* state = t.closed() ? "closed" : t.use()->isWriter() ? "writer" : "reader";
        return "<depottrie.RouteTable " + t.name() + " (" + state + ")>";
      });

  py::class_<RouteIterator>(m, "RouteIterator")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &RouteIterator::next);

  m.def(
      "open_reader",
      [](const std::string& name, py::object root, const std::string& prefixes) {
        const Options o = options(root, 0644, 0, 0, prefixes);
        return Table(unlocked([&] { return depottrie::RouteTable::openReader(name, o.options); }), o.output);
      },
      kw("name"), py::kw_only(), py::arg("root") = py::none(), py::arg("prefixes") = "str",
      (std::string("Maps an existing table read-only; depottrie.Error when there is none. root: the directory of the "
                   "tables (default $DEPOT_ROOT, else /dev/shm/depot). ") +
       prefixesDoc)
          .c_str());
  m.def(
      "open_writer",
      [](const std::string& name, py::object root, unsigned mode, std::uint64_t ipv4Capacity,
         std::uint64_t ipv6Capacity, const std::string& prefixes) {
        const Options o = options(root, mode, ipv4Capacity, ipv6Capacity, prefixes);
        return Table(unlocked([&] { return depottrie::RouteTable::openWriter(name, o.options); }), o.output);
      },
      kw("name"), py::kw_only(), py::arg("root") = py::none(), py::arg("mode") = 0644, py::arg("ipv4_capacity") = 0,
      py::arg("ipv6_capacity") = 0, py::arg("prefixes") = "str",
      (std::string("Creates the table, or reopens it keeping every route, as its one writer; depottrie.Error when "
                   "another process writes it. mode: permission bits of a new table's files (0o644, 0o640 or "
                   "0o600). ipv4_capacity, ipv6_capacity: prefixes a new table has room for from the start. ") +
       prefixesDoc)
          .c_str());
  m.def(
      "exists",
      [](const std::string& name, py::object root) {
        const depottrie::Options o{.root = pathText(root)};
        return depottrie::RouteTable::exists(name, o);
      },
      kw("name"), py::kw_only(), py::arg("root") = py::none(), "Whether the table's files are there.");
  m.def(
      "drop",
      [](const std::string& name, py::object root) {
        const depottrie::Options o{.root = pathText(root)};
        unlocked([&] { depottrie::RouteTable::drop(name, o); });
      },
      kw("name"), py::kw_only(), py::arg("root") = py::none(),
      "Removes the table's files; refused while a writer has them.");
}
