@0xd3f1c05b7a9e4462;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::packet");

struct Row {
  well @0 :Text;
  values @1 :List(Float64);
}

struct Table {
  items @0 :List(Text);
  rows @1 :List(Row);
}
