pytest_plugins = ["qbvisa.testing"]
