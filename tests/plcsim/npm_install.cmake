# Installs ads-client v2 into DIR with npm. Fails with the reason when npm is
# missing or the registry cannot be reached. Run: cmake -DNPM=... -DDIR=... -P
if(NOT NPM OR NPM MATCHES "NOTFOUND")
  message(FATAL_ERROR "npm not found: cannot install ads-client@2 (configure with -DADS_SKIP_NPM_TESTS=ON to leave these tests out)")
endif()
set(pkg "${DIR}/node_modules/ads-client/package.json")
if(EXISTS "${pkg}")
  file(READ "${pkg}" json)
  string(JSON version GET "${json}" version)
  if(version MATCHES "^2\\.")
    message(STATUS "ads-client ${version} already installed in ${DIR}")
    return()
  endif()
endif()
file(MAKE_DIRECTORY "${DIR}")
# A package.json of its own keeps npm from walking up to a parent folder.
file(WRITE "${DIR}/package.json" "{ \"name\": \"plcsim-npm-tests\", \"private\": true }\n")
execute_process(
  COMMAND "${NPM}" install --no-audit --no-fund --fetch-retries=1 --fetch-timeout=60000 ads-client@2
  WORKING_DIRECTORY "${DIR}"
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 240)
if(NOT rc EQUAL 0 OR NOT EXISTS "${pkg}")
  message(FATAL_ERROR "npm could not install ads-client@2 into ${DIR} (is the npm registry reachable?)\n"
                      "npm result: ${rc}\n${out}\n${err}\n"
                      "Configure with -DADS_SKIP_NPM_TESTS=ON to leave the ads-client tests out.")
endif()
file(READ "${pkg}" json)
string(JSON version GET "${json}" version)
message(STATUS "installed ads-client ${version} in ${DIR}")
