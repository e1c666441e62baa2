# Makes the certificates of the TLS tests in DIR with the openssl program OPENSSL: a CA that the
# client trusts, server certificates that it signs (valid, for another host) and one
# signed by a CA that nobody trusts, each with the server's key in the same file. The trusted
# folder holds the CA under its hash name.
file(MAKE_DIRECTORY ${DIR}/trusted)
function(run)
  execute_process(COMMAND ${OPENSSL} ${ARGN} WORKING_DIRECTORY ${DIR} RESULT_VARIABLE failed
                  OUTPUT_QUIET ERROR_VARIABLE error)
  if(failed)
    message(FATAL_ERROR "openssl ${ARGN}: ${error}")
  endif()
endfunction()

set(new_key -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)
foreach(ca ca stranger-ca)
  run(req -x509 ${new_key} -keyout ${ca}.key -out ${ca}.pem -subj /CN=${ca} -days 3650)
endforeach()
run(req ${new_key} -keyout server.key -out server.csr -subj /CN=localhost)
file(WRITE ${DIR}/local.ext "subjectAltName=DNS:localhost,IP:127.0.0.1\n")
file(WRITE ${DIR}/other.ext "subjectAltName=DNS:other.example\n")
# Name, issuer, names it is for, days valid.
foreach(row good,ca,local,3650 other-host,ca,other,3650 stranger,stranger-ca,local,3650)
  string(REPLACE "," ";" row ${row})
  list(GET row 0 name)
  list(GET row 1 issuer)
  list(GET row 2 names)
  list(GET row 3 days)
  run(x509 -req -in server.csr -CA ${issuer}.pem -CAkey ${issuer}.key -CAcreateserial
      -days ${days} -extfile ${names}.ext -out ${name}.pem)
  file(READ ${DIR}/${name}.pem certificate)
  file(READ ${DIR}/server.key key)
  file(WRITE ${DIR}/${name}.pem "${certificate}${key}")
endforeach()
file(COPY ${DIR}/ca.pem DESTINATION ${DIR}/trusted)
run(rehash trusted)
