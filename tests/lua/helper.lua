-- Loaded by busted before every spec: the modules come from the build tree
-- (LUA_CPATH is set by CTest), and the host face is set up once.
package.cpath = (os.getenv("VEXIL_BUILD_DIR") or "build") .. "/?.so;" .. package.cpath
