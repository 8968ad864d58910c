// The C++ headers as a client compiles them: C++17 without exceptions or
// RTTI, every warning an error (see tests/CMakeLists.txt for the flags).
#include <tarn/notification.hpp>
#include <tarn/notification_json.hpp>
#include <tarn/result.hpp>
#include <tarn/sets.hpp>
#include <tarn/tarn.hpp>

int main()
{
    tarn::Result<tarn::Library> lib = tarn::Library::open();
    if (!lib.ok())
        return lib.status().code() == tarn::Errc::failed ? 0 : 1;
    for (const tarn::Context &c : lib->contexts())
        (void)c.name();
    const tarn::Decoded d = tarn::decode_notification(51208, nullptr, 0);
    return tarn::to_json(d).empty() ? 1 : 0;
}
