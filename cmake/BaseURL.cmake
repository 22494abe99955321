# The service that the library talks to, fixed when it is built: there is no setting for it at run time.
set(QUORVA_BASE_URL "https://api.quorva.example/app/"
    CACHE STRING "Base URL of the service: an absolute https URL whose path is /app/")

if(NOT QUORVA_BASE_URL MATCHES "^https://([A-Za-z0-9]([A-Za-z0-9.-]*[A-Za-z0-9])?)(:[0-9]+)?/app/$")
  message(FATAL_ERROR "QUORVA_BASE_URL is \"${QUORVA_BASE_URL}\"; it must be an absolute https URL whose path is /app/, "
                      "like https://api.quorva.example/app/")
endif()
set(QUORVA_SERVICE_HOST "${CMAKE_MATCH_1}")
