"""What the tests know of the service and of everybody around it; README.md lists the modules."""
