// Random bytes and start-up of the cryptographic library; filled in with the token store.
