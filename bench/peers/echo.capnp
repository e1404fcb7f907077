@0xb1c5d0a7e2f3946d;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("tessel::bench");

interface Echo {
  call @0 (question :Data) -> (answer :Data);
}
