# Makes the TLS material of the Java library's tests, fresh for each run, with
# the JDK's keytool (cmake -P, run as the ctest fixture java_azure_library_tls):
#
#   OUT_DIR/server.p12      the key and self-signed certificate Azurite and the
#                           test proxy serve (PKCS#12, password PASSWORD), valid
#                           for the name "localhost" only (no IP address), so
#                           that https://127.0.0.1 does not match it
#   OUT_DIR/server.crt      that certificate (PEM)
#   OUT_DIR/truststore.p12  a trust store holding only that certificate, for
#                           -Djavax.net.ssl.trustStore, as an operator would
#                           trust a private certificate
#
# Variables: KEYTOOL (the keytool executable), OUT_DIR, PASSWORD.

foreach(var KEYTOOL OUT_DIR PASSWORD)
  if(NOT ${var})
    message(FATAL_ERROR "TestCertificates.cmake needs -D${var}=...")
  endif()
endforeach()

file(REMOVE_RECURSE "${OUT_DIR}")
file(MAKE_DIRECTORY "${OUT_DIR}")

function(run_keytool)
  execute_process(COMMAND "${KEYTOOL}" ${ARGN}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "keytool ${ARGV0} failed (${rc}): ${out}")
  endif()
endfunction()

run_keytool(-genkeypair -noprompt -alias azurite -keyalg RSA -keysize 2048 -validity 7
            -dname "CN=localhost" -ext "SAN=DNS:localhost"
            -storetype PKCS12 -keystore "${OUT_DIR}/server.p12"
            -storepass "${PASSWORD}" -keypass "${PASSWORD}")
run_keytool(-exportcert -rfc -alias azurite -keystore "${OUT_DIR}/server.p12" -storepass "${PASSWORD}"
            -file "${OUT_DIR}/server.crt")
run_keytool(-importcert -noprompt -alias azurite -file "${OUT_DIR}/server.crt"
            -storetype PKCS12 -keystore "${OUT_DIR}/truststore.p12" -storepass "${PASSWORD}")
message(STATUS "test certificate for localhost in ${OUT_DIR}")
