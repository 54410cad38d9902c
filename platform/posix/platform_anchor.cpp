// Keeps the library non-empty until the services land.
namespace velt_platform_detail { int anchor = 0; }
