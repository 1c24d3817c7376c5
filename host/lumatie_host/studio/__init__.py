"""Several stations and one studio: records over an MQTT broker, pictures over HTTP."""
